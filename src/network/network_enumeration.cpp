#include "network/network_enumeration.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "discovery/adapters.h"
#include "discovery/exceptions.h"
#include "kmio/kmio.h"
#include "network/network_discovery.h"
#include "options/options_error.h"

namespace kmio {

namespace {

constexpr std::string_view kNetworkPrefix = "network:";

std::vector<Ipv4> localAddresses() {
    std::vector<Ipv4> addresses;
    for (const kalometnd::AdapterInfo& adapter : kalometnd::listAdapters()) {
        addresses.push_back(adapter.address);
    }
    return addresses;
}

template <class T>
bool listAdmits(const std::vector<T>& wanted, const T& value) {
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
}

// The find- filters, in their order.
bool passesFilters(const NetworkEnumerationOptions& options, const kalometnd::DiscoverInfo& device) {
    return listAdmits(options.findProtocolId, static_cast<std::uint32_t>(device.protocolId)) &&
           listAdmits(options.findDeviceType, device.selector) &&
           listAdmits(options.findDeviceSn, device.serialNumber) &&
           (!options.findOnlyAvailable || device.available);
}

// True when an entry is "network:none" (anything may follow another ':').
bool selectsNone(const std::string& entry) {
    if (entry.compare(0, kNetworkPrefix.size(), kNetworkPrefix) != 0) {
        return false;
    }
    const std::string_view rest = std::string_view(entry).substr(kNetworkPrefix.size());
    return rest.substr(0, rest.find(':')) == "none";
}

// The "discovery-iface" values as a set of interfaces; empty for "none",
// which wins over every entry around it. Throws OptionsError for an entry
// that names no interface, so that a bad request changes nothing.
std::set<Ipv4> discoveryInterfaces(const std::vector<std::string>& entries) {
    if (std::any_of(entries.begin(), entries.end(), selectsNone)) {
        return {};
    }
    std::optional<std::set<Ipv4>> addresses = parseInterfaceSelectors(entries, localAddresses);
    if (!addresses) {
        throw OptionsError("Invalid discovery-iface value");
    }
    return std::move(*addresses);
}

}  // namespace

std::uint32_t enumerateNetworkDevices(NetworkDiscovery& cache, const NetworkEnumerationOptions& options,
                                      RecordList& records) {
    const std::optional<std::set<Ipv4>> interfaces = parseInterfaceSelectors(options.iface, localAddresses);
    if (!interfaces) {
        return KM_IO_ERR_BAD_OPTIONS;
    }
    const LocatorFormat format = parseLocatorFormat(options.locatorFormatNetwork);
    if (interfaces->empty()) {
        return KM_IO_OK;
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
    return KM_IO_OK;
}

NetworkDiscovery::Settings discoverySettings(const GlobalOptions& options) {
    NetworkDiscovery::Settings settings;
    if (options.locatorFormatNetwork) {
        settings.locatorFormat = parseLocatorFormat(*options.locatorFormatNetwork);
    }
    if (options.discoveryIface) {
        settings.interfaces = discoveryInterfaces(*options.discoveryIface);
    }
    return settings;
}

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
