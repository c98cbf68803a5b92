#include <winsock2.h>
#include <ws2tcpip.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <system_error>

#include "discovery/packet.h"
#include "options/locator.h"
#include "platform/error_text.h"
#include "platform/socket_address.h"
#include "sim_net.h"
#include "sim_net_platform.h"

namespace kmiosim {

namespace {

constexpr int kStopPollMs = 100;

SOCKET handleOf(const kmio::Socket& socket) {
    return static_cast<SOCKET>(socket.get());
}

std::atomic<int> stopEvent{0};

BOOL WINAPI onConsoleControl(DWORD type) {
    if (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT || type == CTRL_CLOSE_EVENT) {
        // Reported as the signal that stands for it on POSIX.
        stopEvent.store(type == CTRL_CLOSE_EVENT ? 15 : 2);
        return TRUE;
    }
    return FALSE;
}

}  // namespace

void pollSockets(std::vector<PollEntry>& entries, int timeoutMs) {
    std::vector<WSAPOLLFD> fds;
    fds.reserve(entries.size());
    for (const PollEntry& entry : entries) {
        WSAPOLLFD fd{};
        fd.fd = static_cast<SOCKET>(entry.handle);
        fd.events = static_cast<SHORT>(((entry.wanted & kReadable) != 0 ? POLLRDNORM : 0) |
                                       ((entry.wanted & kWritable) != 0 ? POLLWRNORM : 0));
        fds.push_back(fd);
    }
    const int ready = fds.empty() ? (::Sleep(static_cast<DWORD>(timeoutMs < 0 ? INFINITE : timeoutMs)), 0)
                                  : ::WSAPoll(fds.data(), static_cast<ULONG>(fds.size()), timeoutMs);
    if (ready == SOCKET_ERROR) {
        failWithLastError("poll failed");
    }
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const SHORT got = ready > 0 ? fds[k].revents : 0;
        entries[k].ready = ((got & POLLRDNORM) != 0 ? kReadable : 0) |
                           ((got & POLLWRNORM) != 0 ? kWritable : 0) |
                           ((got & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? kBroken : 0);
    }
}

kmio::Socket newSocket(int type, bool nonBlocking) {
    kmio::Socket socket(static_cast<kmio::Socket::Native>(
        ::socket(AF_INET, type, type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP)));
    u_long mode = nonBlocking ? 1 : 0;
    if (socket && ::ioctlsocket(handleOf(socket), FIONBIO, &mode) != 0) {
        // Closing the socket must not replace the error the caller reports.
        const int error = ::WSAGetLastError();
        socket.reset();
        ::WSASetLastError(error);
    }
    return socket;
}

// Windows hands broadcasts and multicasts to sockets bound to the wildcard
// address; it does not let a socket bind a broadcast or group address.
// SO_REUSEADDR lets a host on the same machine bind the same ports.
std::uint32_t receiverBindAddress(std::uint32_t) {
    return INADDR_ANY;
}

// Windows has no such option; the receiver takes what the system gives it.
void receiveJoinedGroupsOnly(const kmio::Socket&) {}

int streamSendFlags() {
    return 0;
}

bool isWouldBlock(int error) {
    return error == WSAEWOULDBLOCK;
}

// An accepted socket inherits the listener's non-blocking mode.
kmio::Socket acceptConnection(const kmio::Socket& listener, std::uint32_t& address, std::uint16_t& port) {
    sockaddr_in from{};
    int size = sizeof from;
    const SOCKET client = ::accept(handleOf(listener), reinterpret_cast<sockaddr*>(&from), &size);
    if (client == INVALID_SOCKET) {
        return {};
    }
    address = ntohl(from.sin_addr.s_addr);
    port = ntohs(from.sin_port);
    return kmio::Socket(static_cast<kmio::Socket::Native>(client));
}

// Ctrl-C cannot be polled with the sockets: the handler sets a flag that the
// loop reads after every wait, which the limit keeps short.
StopRequest::StopRequest() {
    ::SetConsoleCtrlHandler(&onConsoleControl, TRUE);
}

StopRequest::~StopRequest() {
    ::SetConsoleCtrlHandler(&onConsoleControl, FALSE);
}

kmio::Socket::Native StopRequest::pollHandle() const {
    return kmio::Socket::kInvalid;
}

int StopRequest::pollLimitMs() const {
    return kStopPollMs;
}

int StopRequest::taken() {
    return stopEvent.exchange(0);
}

void prepareProcess() {
    try {
        kmio::startSocketLibrary();
    } catch (const std::system_error& e) {
        throw std::runtime_error("Could not start WinSock: " + kmio::systemErrorText(e.code().value()));
    }
}

}  // namespace kmiosim
