#include "network/network_serial_lookup.h"

#include <optional>
#include <set>

#include "discovery/exceptions.h"
#include "kmio/kmio.h"
#include "network/local_addresses.h"
#include "options/locator.h"

namespace kmio {

std::uint32_t resolveNetworkSerialNumber(NetworkDiscovery& cache, const std::string& serialNumber,
                                         const NetworkOpenOptions& options, DiscoveredAddress& found) {
    std::optional<kalometnd::DiscoverInfo> device = cache.lookup(serialNumber);
    if (!device) {
        std::optional<std::set<Ipv4>> interfaces;
        try {
            interfaces = parseInterfaceSelectors(options.iface, localAddresses);
        } catch (const kalometnd::KalometNDException&) {
            // "network:all" with an unreadable interface list: the open
            // contract (a code from the resolver) calls this a bad option.
            return KM_IO_ERR_BAD_OPTIONS;
        }
        if (!interfaces) {
            return KM_IO_ERR_BAD_OPTIONS;
        }
        if (interfaces->empty()) {
            // Without interfaces only an earlier discovery can have found it.
            return KM_IO_ERR_NOT_FOUND;
        }
        (void)cache.discover(*interfaces, options.discoveryTimeout, true, serialNumber);
        device = cache.lookup(serialNumber);
        if (!device) {
            return KM_IO_ERR_NOT_FOUND;
        }
    }
    found.address = device->ipAddress;
    found.port = device->port;
    return KM_IO_OK;
}

}  // namespace kmio
