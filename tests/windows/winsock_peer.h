#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdint>
#include <stdexcept>

#include "platform/socket.h"
#include "platform/socket_address.h"

namespace kmiotest {

inline SOCKET raw(const kmio::Socket& socket) {
    return static_cast<SOCKET>(socket.get());
}

// A socket of the given type bound to 127.0.0.1:port (0 picks a free port).
inline kmio::Socket loopbackSocket(int type, std::uint16_t port = 0) {
    kmio::startSocketLibrary();
    kmio::Socket socket(static_cast<kmio::Socket::Native>(::socket(AF_INET, type, 0)));
    const sockaddr_in local = kmio::ipv4SocketAddress(INADDR_LOOPBACK, port);
    if (!socket || ::bind(raw(socket), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        throw std::runtime_error("cannot bind a loopback socket");
    }
    return socket;
}

inline std::uint16_t localPort(const kmio::Socket& socket) {
    sockaddr_in bound{};
    int length = sizeof bound;
    ::getsockname(raw(socket), reinterpret_cast<sockaddr*>(&bound), &length);
    return ntohs(bound.sin_port);
}

}  // namespace kmiotest
