#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "platform/interface_addresses.h"

namespace kmio {

namespace {

struct IfaddrsDeleter {
    void operator()(ifaddrs* list) const noexcept { freeifaddrs(list); }
};

std::uint32_t hostOrder(const sockaddr* address) {
    return ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
}

}  // namespace

std::vector<InterfaceAddress> listInterfaceAddresses() {
    ifaddrs* raw = nullptr;
    if (getifaddrs(&raw) != 0) {
        throw std::system_error(errno, std::system_category(), "getifaddrs");
    }
    const std::unique_ptr<ifaddrs, IfaddrsDeleter> list(raw);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        InterfaceAddress item;
        item.name = entry->ifa_name;
        item.address = hostOrder(entry->ifa_addr);
        item.netmask = entry->ifa_netmask != nullptr ? hostOrder(entry->ifa_netmask) : 0;
        item.up = (entry->ifa_flags & IFF_UP) != 0;
        item.running = (entry->ifa_flags & IFF_RUNNING) != 0;
        item.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
        addresses.push_back(std::move(item));
    }
    return addresses;
}

}  // namespace kmio
