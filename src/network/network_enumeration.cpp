#include "network/network_enumeration.h"
#include "options/list_filter.h"

#include <algorithm>
#include <optional>
#include <set>
#include <vector>

#include "network/local_addresses.h"
#include "network/network_discovery.h"
#include "options/locator.h"
#include "options/options_error.h"

namespace kmio {

namespace {

// The find- filters, in their order.
bool passesFilters(const NetworkEnumerationOptions& options, const kalometnd::DiscoverInfo& device) {
    return admits(options.findProtocolId, static_cast<std::uint32_t>(device.protocolId)) &&
           admits(options.findDeviceType, device.selector) &&
           admits(options.findDeviceSn, device.serialNumber) &&
           (!options.findOnlyAvailable || device.available);
}

}  // namespace

void enumerateNetworkDevices(NetworkDiscovery& cache, const NetworkEnumerationOptions& options,
                             RecordList& records) {
    // Checked in full before anything is discovered, like the locator format.
    const std::optional<std::set<Ipv4>> interfaces = parseInterfaceSelectors(options.iface, localAddresses);
    if (!interfaces) {
        throw OptionsError("Invalid iface value");
    }
    const LocatorFormat format = parseLocatorFormat(options.locatorFormatNetwork);
    if (interfaces->empty()) {
        return;
    }
    // A failed run still leaves what earlier runs found.
    (void)cache.discover(*interfaces, options.discoveryTimeout, options.forceRescan, "");
    for (const auto& [interfaceAddress, devices] : cache.filterListsOn(*interfaces)) {
        for (const kalometnd::DiscoverInfo& device : devices) {
            if (passesFilters(options, device)) {
                records.push_back(networkDeviceRecord(device, interfaceAddress, format));
            }
        }
    }
}

}  // namespace kmio
