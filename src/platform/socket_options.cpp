#include "platform/socket_options.h"

#include <cstddef>

#include "platform/socket_address.h"
#include "platform/socket_api.h"

namespace kmio {

namespace {

// WinSock takes option values as char pointers; POSIX takes any pointer.
int setOption(const Socket& socket, int level, int option, const void* value, std::size_t size) {
    const int result = ::setsockopt(nativeSocket(socket), level, option, static_cast<const char*>(value),
                                    static_cast<socklen_t>(size));
    return result == 0 ? 0 : lastSocketError();
}

}  // namespace

int setSocketInt(const Socket& socket, int level, int option, int value) {
    return setOption(socket, level, option, &value, sizeof value);
}

int bindIpv4(const Socket& socket, Ipv4 address, std::uint16_t port) {
    const sockaddr_in local = ipv4SocketAddress(address, port);
    const int result = ::bind(nativeSocket(socket), reinterpret_cast<const sockaddr*>(&local),
                              static_cast<socklen_t>(sizeof local));
    return result == 0 ? 0 : lastSocketError();
}

int setMulticastInterface(const Socket& socket, Ipv4 interfaceAddress) {
    in_addr outgoing{};
    outgoing.s_addr = htonl(interfaceAddress);
    return setOption(socket, IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof outgoing);
}

int joinMulticastGroup(const Socket& socket, Ipv4 group, Ipv4 interfaceAddress) {
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(interfaceAddress);
    return setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
}

}  // namespace kmio
