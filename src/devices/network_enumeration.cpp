#include "devices/network_enumeration.h"

#include "kmio/kmio.h"

namespace kmio {

// Placeholder until the network link lands: nothing discovered.
std::uint32_t enumerateNetworkDevices(const NetworkEnumerationOptions&, RecordList&) { return KM_IO_OK; }
std::uint32_t applyGlobalDiscoveryOptions(const GlobalOptions&) { return KM_IO_OK; }
std::uint32_t resolveNetworkSerialNumber(const std::string&, const NetworkOpenOptions&, DiscoveredAddress&) {
    return KM_IO_ERR_NOT_FOUND;
}

}  // namespace kmio
