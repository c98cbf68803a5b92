#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/socket_api.h"

namespace kmio {

// The IPv4 socket address of a host-order address and port (10.0.0.5 is
// 0x0A000005), as bind, connect and sendto take it.
inline sockaddr_in ipv4SocketAddress(std::uint32_t address, std::uint16_t port) {
    sockaddr_in out{};
    out.sin_family = AF_INET;
    out.sin_addr.s_addr = htonl(address);
    out.sin_port = htons(port);
    return out;
}

// The sender's IPv4 address in host order as recvfrom filled it in (length
// is the size it reported), or 0 when the sender is not IPv4.
inline std::uint32_t ipv4SenderAddress(const sockaddr_storage& from, std::size_t length) {
    if (length != sizeof(sockaddr_in) || from.ss_family != AF_INET) {
        return 0;
    }
    return ntohl(reinterpret_cast<const sockaddr_in*>(&from)->sin_addr.s_addr);
}

}  // namespace kmio
