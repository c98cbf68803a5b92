#pragma once

#include <cstdint>
#include <string>

#include "network/network_discovery.h"
#include "options/locator.h"
#include "options/option_sets.h"
#include "options/property_record.h"

namespace kmio {

// The network link's enumeration and the uses of the discovery cache by the
// layers above it. The cache is the caller's (the library's one instance, or
// a test's own).

// Devices discovered on the "iface" interfaces, filtered by the find- options.
// KM_IO_ERR_BAD_OPTIONS for an "iface" entry that names no interface. A
// discovery run that fails is no error: the records are what the cache holds.
// Throws the discovery exceptions when "network:all" cannot read the machine's
// interfaces.
std::uint32_t enumerateNetworkDevices(NetworkDiscovery& cache, const NetworkEnumerationOptions& options,
                                      RecordList& records);

// Records ("iface-type", "network-host", "network-subnet-mask", "name") of the
// machine's IPv4 interfaces. Throws the discovery exceptions when the list
// cannot be read.
std::uint32_t enumerateNetworkInterfaces(RecordList& records);

// The discovery settings that the global options ask for ("discovery-iface",
// "locator-format-network"), checked in full before anything changes. Throws
// OptionsError for a value that names no interface or format, and the
// discovery exceptions when "network:all" cannot read the interface list.
NetworkDiscovery::Settings discoverySettings(const GlobalOptions& options);

// Finds a network device by serial number for IoNetwork: first in the
// discovery cache, then by a forced discovery on the "iface" interfaces.
// KM_IO_OK with found filled; KM_IO_ERR_BAD_OPTIONS for an unparsable "iface"
// list (also when "network:all" cannot read the interfaces); KM_IO_ERR_NOT_FOUND
// for an empty interface set or no such device.
std::uint32_t resolveNetworkSerialNumber(NetworkDiscovery& cache, const std::string& serialNumber,
                                         const NetworkOpenOptions& options, DiscoveredAddress& found);

}  // namespace kmio
