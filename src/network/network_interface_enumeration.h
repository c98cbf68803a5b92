#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "discovery/adapters.h"
#include "options/property_record.h"

namespace kmio {

// Where the interface records come from: the machine's adapter list, or a
// test's own. May throw a kalometnd exception.
using AdapterSource = std::function<std::vector<kalometnd::AdapterInfo>()>;

// One record per adapter, keys in order "iface-type" ("network"),
// "network-host", "network-subnet-mask", "name" (the friendly name). Returns
// KM_IO_OK (an empty list included); what the source throws passes on, with
// no record added (the enumeration entry point makes it
// KM_IO_ERR_ENUMERATION_FAILED).
std::uint32_t enumerateNetworkInterfaces(RecordList& records, const AdapterSource& adapters);

// The same over the machine's adapter list. Throws the discovery exceptions
// when the list cannot be read.
std::uint32_t enumerateNetworkInterfaces(RecordList& records);

}  // namespace kmio
