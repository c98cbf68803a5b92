#include <fstream>
#include <system_error>

#include "discovery/adapters.h"
#include "discovery/exceptions.h"
#include "platform/error_text.h"
#include "platform/interface_addresses.h"
#include "platform/netmask.h"

namespace kalometnd {

namespace {

// An administrator-set description ("ip link set NAME alias TEXT") plays the
// part of a friendly name; interfaces without one go by their name.
std::string friendlyName(const std::string& name) {
    std::ifstream file("/sys/class/net/" + name + "/ifalias");
    std::string alias;
    if (file && std::getline(file, alias) && !alias.empty()) {
        return alias;
    }
    return name;
}

}  // namespace

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
        info.friendlyName = friendlyName(entry.name);
        info.adapterName = std::move(entry.name);
        info.address = entry.address;
        // The mask goes through its prefix length, by the interface list's rule.
        info.netmask = kmio::netmaskOfPrefixLength(kmio::prefixLengthOfNetmask(entry.netmask));
        adapters.push_back(std::move(info));
    }
    return adapters;
}

}  // namespace kalometnd
