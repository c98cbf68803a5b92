#include <system_error>

#include "discovery/adapters.h"
#include "discovery/exceptions.h"
#include "platform/error_text.h"
#include "platform/interface_addresses.h"

namespace kalometnd {

// Adapters that are up, IPv4-enabled, not receive-only and not the software
// loopback, one record per IPv4 address, in the system's order.
std::vector<AdapterInfo> listAdapters() {
    std::vector<kmio::InterfaceAddress> addresses;
    try {
        addresses = kmio::listInterfaceAddresses();
    } catch (const std::system_error& e) {
        throw NetworkException("Could not get interface list: " + kmio::systemErrorText(e.code().value()));
    }
    std::vector<AdapterInfo> adapters;
    for (kmio::InterfaceAddress& entry : addresses) {
        if (!entry.up || !entry.running || entry.loopback) {
            continue;
        }
        AdapterInfo info;
        info.adapterName = std::move(entry.name);
        info.address = entry.address;
        info.netmask = entry.netmask;
        info.friendlyName = std::move(entry.friendlyName);
        adapters.push_back(std::move(info));
    }
    return adapters;
}

}  // namespace kalometnd
