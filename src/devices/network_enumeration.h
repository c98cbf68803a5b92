#pragma once

#include <cstdint>
#include <string>

#include "options/locator.h"
#include "options/option_sets.h"
#include "options/property_record.h"

namespace kmio {

// The network link's enumeration, over the process-wide discovery cache.

// Devices discovered on the "iface" interfaces, filtered by the find- options.
std::uint32_t enumerateNetworkDevices(const NetworkEnumerationOptions& options, RecordList& records);

// Records ("iface-type", "network-host", "network-subnet-mask", "name") of the
// machine's IPv4 interfaces; KM_IO_ERR_ENUMERATION_FAILED when unreadable.
std::uint32_t enumerateNetworkInterfaces(RecordList& records);

// KM_IO_SetGlobalOptions: locator format of events and background discovery interfaces.
std::uint32_t applyGlobalDiscoveryOptions(const GlobalOptions& options);

// Finds a network device by serial number for IoNetwork: first in the
// discovery cache, then by a forced discovery on the "iface" interfaces.
// KM_IO_OK with found filled; KM_IO_ERR_BAD_OPTIONS for an unparsable "iface"
// list; KM_IO_ERR_NOT_FOUND for an empty interface set or no such device.
std::uint32_t resolveNetworkSerialNumber(const std::string& serialNumber, const NetworkOpenOptions& options,
                                         DiscoveredAddress& found);

}  // namespace kmio
