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

namespace kmiosim {

namespace {

constexpr int kStopPollMs = 100;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + kmio::systemErrorText(::WSAGetLastError()));
}

SOCKET handleOf(const kmio::Socket& socket) {
    return static_cast<SOCKET>(socket.get());
}

kmio::Socket udpSocket(bool nonBlocking) {
    kmio::Socket socket(static_cast<kmio::Socket::Native>(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)));
    u_long mode = nonBlocking ? 1 : 0;
    if (!socket || ::ioctlsocket(handleOf(socket), FIONBIO, &mode) != 0) {
        fail("Could not create socket");
    }
    return socket;
}

void setInt(const kmio::Socket& socket, int level, int option, int value, const char* what) {
    if (::setsockopt(handleOf(socket), level, option, reinterpret_cast<const char*>(&value), sizeof value) !=
        0) {
        fail(what);
    }
}

void bindTo(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in local = kmio::ipv4SocketAddress(address, port);
    if (::bind(handleOf(socket), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        fail("Could not bind to " + kmio::formatIpv4(address) + ":" + std::to_string(port));
    }
}

bool wouldBlock() {
    return ::WSAGetLastError() == WSAEWOULDBLOCK;
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
        fail("poll failed");
    }
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const SHORT got = ready > 0 ? fds[k].revents : 0;
        entries[k].ready = ((got & POLLRDNORM) != 0 ? kReadable : 0) |
                           ((got & POLLWRNORM) != 0 ? kWritable : 0) |
                           ((got & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? kBroken : 0);
    }
}

// Windows hands broadcasts and multicasts to sockets bound to the wildcard
// address; it does not let a socket bind a broadcast or group address.
// SO_REUSEADDR lets a host on the same machine bind the same ports.
kmio::Socket broadcastReceiver(std::uint32_t, std::uint16_t port) {
    kmio::Socket socket = udpSocket(true);
    setInt(socket, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    bindTo(socket, INADDR_ANY, port);
    return socket;
}

kmio::Socket multicastReceiver(std::uint32_t group, std::uint16_t port, std::uint32_t interfaceAddress) {
    kmio::Socket socket = udpSocket(true);
    setInt(socket, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    bindTo(socket, INADDR_ANY, port);
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(interfaceAddress);
    if (::setsockopt(handleOf(socket), IPPROTO_IP, IP_ADD_MEMBERSHIP,
                     reinterpret_cast<const char*>(&membership), sizeof membership) != 0) {
        fail("Could not join the discovery group");
    }
    return socket;
}

kmio::Socket datagramSender(std::uint32_t interfaceAddress) {
    kmio::Socket socket = udpSocket(false);
    setInt(socket, SOL_SOCKET, SO_BROADCAST, 1, "Could not set SO_BROADCAST");
    setInt(socket, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "Could not set IP_MULTICAST_LOOP");
    in_addr outgoing{};
    outgoing.s_addr = htonl(interfaceAddress);
    if (::setsockopt(handleOf(socket), IPPROTO_IP, IP_MULTICAST_IF, reinterpret_cast<const char*>(&outgoing),
                     sizeof outgoing) != 0) {
        fail("Could not set the multicast interface");
    }
    bindTo(socket, interfaceAddress, 0);
    return socket;
}

std::ptrdiff_t receiveDatagram(const kmio::Socket& socket, std::span<std::uint8_t> buffer,
                               std::uint32_t& from, std::uint16_t& fromPort) {
    sockaddr_in sender{};
    int size = sizeof sender;
    const int got =
        ::recvfrom(handleOf(socket), reinterpret_cast<char*>(buffer.data()), static_cast<int>(buffer.size()),
                   0, reinterpret_cast<sockaddr*>(&sender), &size);
    from = ntohl(sender.sin_addr.s_addr);
    fromPort = ntohs(sender.sin_port);
    return got == SOCKET_ERROR ? -1 : got;
}

int sendDatagram(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port,
                 std::span<const std::uint8_t> datagram) {
    const sockaddr_in to = kmio::ipv4SocketAddress(address, port);
    const int sent =
        ::sendto(handleOf(socket), reinterpret_cast<const char*>(datagram.data()),
                 static_cast<int>(datagram.size()), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent == SOCKET_ERROR ? ::WSAGetLastError() : 0;
}

kmio::Socket tcpListener(std::uint32_t address, std::uint16_t port) {
    const std::string where = kmio::formatIpv4(address) + ":" + std::to_string(port);
    kmio::Socket socket(static_cast<kmio::Socket::Native>(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)));
    const int on = 1;
    u_long nonBlocking = 1;
    const sockaddr_in local = kmio::ipv4SocketAddress(address, port);
    if (!socket || ::ioctlsocket(handleOf(socket), FIONBIO, &nonBlocking) != 0 ||
        ::setsockopt(handleOf(socket), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on),
                     sizeof on) != 0 ||
        ::bind(handleOf(socket), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        ::listen(handleOf(socket), 4) != 0) {
        fail("Could not listen on " + where);
    }
    return socket;
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

std::ptrdiff_t receiveStream(const kmio::Socket& socket, std::span<std::uint8_t> buffer) {
    const int got =
        ::recv(handleOf(socket), reinterpret_cast<char*>(buffer.data()), static_cast<int>(buffer.size()), 0);
    if (got == SOCKET_ERROR) {
        return wouldBlock() ? kWouldBlock : kStreamFailed;
    }
    return got;
}

std::ptrdiff_t sendStream(const kmio::Socket& socket, std::span<const std::uint8_t> data) {
    const int sent = ::send(handleOf(socket), reinterpret_cast<const char*>(data.data()),
                            static_cast<int>(data.size()), 0);
    if (sent == SOCKET_ERROR) {
        return wouldBlock() ? kWouldBlock : kStreamFailed;
    }
    return sent;
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
