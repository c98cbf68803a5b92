#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cerrno>
#include <fstream>
#include <memory>

#include "discovery/adapters.h"
#include "discovery/exceptions.h"
#include "discovery/netmask.h"
#include "platform/error_text.h"

namespace kalometnd {

namespace {

struct IfaddrsDeleter {
    void operator()(ifaddrs* list) const noexcept { freeifaddrs(list); }
};

std::uint32_t hostOrder(const sockaddr* address) {
    return ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
}

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
    ifaddrs* raw = nullptr;
    if (getifaddrs(&raw) != 0) {
        throw NetworkException("Could not get interface list: " + kmio::systemErrorText(errno));
    }
    const std::unique_ptr<ifaddrs, IfaddrsDeleter> list(raw);
    std::vector<AdapterInfo> adapters;
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        const unsigned flags = entry->ifa_flags;
        if ((flags & IFF_UP) == 0 || (flags & IFF_RUNNING) == 0 || (flags & IFF_LOOPBACK) != 0) {
            continue;
        }
        AdapterInfo info;
        info.adapterName = entry->ifa_name;
        info.address = hostOrder(entry->ifa_addr);
        // The mask goes through its prefix length, by the interface list's rule.
        info.netmask = netmaskOfPrefixLength(
            prefixLengthOfNetmask(entry->ifa_netmask != nullptr ? hostOrder(entry->ifa_netmask) : 0));
        info.friendlyName = friendlyName(info.adapterName);
        adapters.push_back(std::move(info));
    }
    return adapters;
}

}  // namespace kalometnd
