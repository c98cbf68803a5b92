#pragma once

#include <cstdint>
#include <string>

#include "network/network_discovery.h"
#include "options/option_sets.h"

namespace kmio {

// Finds a network device by serial number for IoNetwork: first in the
// discovery cache, then by a forced discovery on the "iface" interfaces.
// KM_IO_OK with found filled; KM_IO_ERR_BAD_OPTIONS for an unparsable "iface"
// list (also when "network:all" cannot read the interfaces); KM_IO_ERR_NOT_FOUND
// for an empty interface set or no such device.
std::uint32_t resolveNetworkSerialNumber(NetworkDiscovery& cache, const std::string& serialNumber,
                                         const NetworkOpenOptions& options, DiscoveredAddress& found);

}  // namespace kmio
