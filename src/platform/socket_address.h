#pragma once

#include <cstdint>

#if defined(_WIN32)
#include <winsock2.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#endif

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

}  // namespace kmio
