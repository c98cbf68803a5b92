#pragma once

// The socket calls the tests make for their own peers (devices, listeners),
// with one shape on POSIX and Windows. Only what really differs between the
// two socket APIs is chosen per system here; everything else is shared.

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#endif

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "platform/socket.h"
#include "platform/socket_address.h"

namespace kmiotest {

#if defined(_WIN32)
using NativeSocket = SOCKET;
using AddressLength = int;
using IoLength = int;
constexpr int kCloseOnExec = 0;
constexpr int kNoSigPipe = 0;  // Windows raises no signal on a broken connection
constexpr int kAddressNotAvailable = WSAEADDRNOTAVAIL;
constexpr int kMessageTooLong = WSAEMSGSIZE;
// Windows binds no socket to a broadcast or group address; a socket on the
// wildcard address receives those datagrams there.
constexpr bool kBindsBroadcastAddresses = false;
#else
using NativeSocket = int;
using AddressLength = socklen_t;
using IoLength = std::size_t;
constexpr int kCloseOnExec = SOCK_CLOEXEC;  // the tests start simulators, which must not inherit these
constexpr int kNoSigPipe = MSG_NOSIGNAL;
constexpr int kAddressNotAvailable = EADDRNOTAVAIL;
constexpr int kMessageTooLong = EMSGSIZE;
constexpr bool kBindsBroadcastAddresses = true;
#endif

inline NativeSocket raw(const kmio::Socket& socket) {
    return static_cast<NativeSocket>(socket.get());
}

// A new IPv4 socket of the type (SOCK_STREAM, SOCK_DGRAM); throws when the
// system gives none.
inline kmio::Socket openSocket(int type) {
    kmio::startSocketLibrary();
    kmio::Socket socket(static_cast<kmio::Socket::Native>(::socket(AF_INET, type | kCloseOnExec, 0)));
    if (!socket) {
        throw std::runtime_error("socket");
    }
    return socket;
}

inline bool setOption(const kmio::Socket& socket, int level, int name, const void* value, std::size_t size) {
    return ::setsockopt(raw(socket), level, name, static_cast<const char*>(value),
                        static_cast<AddressLength>(size)) == 0;
}

inline bool bindTo(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in local = kmio::ipv4SocketAddress(address, port);
    return ::bind(raw(socket), reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

inline bool connectTo(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in remote = kmio::ipv4SocketAddress(address, port);
    return ::connect(raw(socket), reinterpret_cast<const sockaddr*>(&remote), sizeof remote) == 0;
}

inline std::uint16_t localPort(const kmio::Socket& socket) {
    sockaddr_in bound{};
    AddressLength length = sizeof bound;
    ::getsockname(raw(socket), reinterpret_cast<sockaddr*>(&bound), &length);
    return ntohs(bound.sin_port);
}

// True once the socket has something to read (or to accept), false when the
// limit passes first.
inline bool waitReadable(const kmio::Socket& socket, std::chrono::milliseconds limit) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(raw(socket), &readable);
    timeval wait{static_cast<decltype(timeval::tv_sec)>(limit.count() / 1000),
                 static_cast<decltype(timeval::tv_usec)>(limit.count() % 1000 * 1000)};
    return ::select(static_cast<int>(raw(socket)) + 1, &readable, nullptr, nullptr, &wait) == 1;
}

// Bytes moved, 0 at the peer's end, negative on failure.
inline std::ptrdiff_t sendBytes(const kmio::Socket& socket, const char* data, std::size_t size) {
    return ::send(raw(socket), data, static_cast<IoLength>(size), kNoSigPipe);
}
inline std::ptrdiff_t receiveBytes(const kmio::Socket& socket, char* buffer, std::size_t size) {
    return ::recv(raw(socket), buffer, static_cast<IoLength>(size), 0);
}

inline bool sendDatagram(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port,
                         const std::uint8_t* data, std::size_t size) {
    const sockaddr_in to = kmio::ipv4SocketAddress(address, port);
    return ::sendto(raw(socket), reinterpret_cast<const char*>(data), static_cast<IoLength>(size), 0,
                    reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0;
}

// One datagram into buffer: its size (negative on failure) and its sender.
inline std::ptrdiff_t receiveDatagram(const kmio::Socket& socket, std::uint8_t* buffer, std::size_t size,
                                      std::uint32_t& from, std::uint16_t& fromPort) {
    sockaddr_in source{};
    AddressLength length = sizeof source;
    const auto n = ::recvfrom(raw(socket), reinterpret_cast<char*>(buffer), static_cast<IoLength>(size), 0,
                              reinterpret_cast<sockaddr*>(&source), &length);
    from = ntohl(source.sin_addr.s_addr);
    fromPort = ntohs(source.sin_port);
    return n;
}

}  // namespace kmiotest
