#include "discovery/adapters.h"

#include <system_error>
#include <utility>

#include "discovery/exceptions.h"
#include "platform/error_text.h"
#include "platform/netmask.h"

namespace kalometnd {

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
        info.friendlyName = friendlyNameOf(entry);
        info.adapterName = std::move(entry.name);
        info.address = entry.address;
        // The mask goes through its prefix length, by the interface list's
        // rule (a prefix length of 0 gives all ones).
        info.netmask = kmio::netmaskOfPrefixLength(kmio::prefixLengthOfNetmask(entry.netmask));
        adapters.push_back(std::move(info));
    }
    return adapters;
}

}  // namespace kalometnd
