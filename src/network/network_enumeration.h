#pragma once

#include "network/network_discovery.h"
#include "options/option_sets.h"
#include "options/property_record.h"

namespace kmio {

// The network link's device enumeration over a discovery cache (the
// library's one instance, or a test's own).

// Devices discovered on the "iface" interfaces, filtered by the find- options,
// appended to records. Throws OptionsError for an "iface" entry that names no
// interface or a "locator-format-network" that names no format, before
// anything is discovered, and the discovery exceptions when "network:all"
// cannot read the machine's interfaces. A discovery run that fails is no
// error: the records are what the cache holds.
void enumerateNetworkDevices(NetworkDiscovery& cache, const NetworkEnumerationOptions& options,
                             RecordList& records);

}  // namespace kmio
