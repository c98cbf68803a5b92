#pragma once

// The system's socket declarations, for code whose socket calls read the same
// on every system: WinSock 2 on Windows, the POSIX headers elsewhere. This is
// the one place that chooses between them; what differs beyond the headers is
// the handle type and where the last error is kept, both given here. Code
// that needs more than that belongs in an OS twin.
#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#endif

#include <cstddef>

#include "platform/socket.h"

namespace kmio {

#if defined(_WIN32)
using NativeSocket = SOCKET;
// The byte count that send and receive calls take.
using SocketIoLength = int;
// WinSock keeps its own per-thread error, which errno does not see.
inline int lastSocketError() {
    return ::WSAGetLastError();
}
#else
using NativeSocket = int;
using SocketIoLength = std::size_t;
inline int lastSocketError() {
    return errno;
}
#endif

inline NativeSocket nativeSocket(const Socket& socket) noexcept {
    return static_cast<NativeSocket>(socket.get());
}

}  // namespace kmio
