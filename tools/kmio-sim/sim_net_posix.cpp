#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>

#include "discovery/packet.h"
#include "options/locator.h"
#include "platform/error_text.h"
#include "platform/socket_address.h"
#include "sim_net.h"

namespace kmiosim {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + kmio::lastSystemErrorText());
}

int fdOf(const kmio::Socket& socket) {
    return static_cast<int>(socket.get());
}

kmio::Socket udpSocket(bool nonBlocking) {
    kmio::Socket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), 0));
    if (!socket) {
        fail("Could not create socket");
    }
    return socket;
}

void setInt(const kmio::Socket& socket, int level, int option, int value, const char* what) {
    if (setsockopt(fdOf(socket), level, option, &value, sizeof value) != 0) {
        fail(what);
    }
}

void bindTo(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in local = kmio::ipv4SocketAddress(address, port);
    if (::bind(fdOf(socket), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        fail("Could not bind to " + kmio::formatIpv4(address) + ":" + std::to_string(port));
    }
}

short pollEvents(unsigned wanted) {
    return static_cast<short>(((wanted & kReadable) != 0 ? POLLIN : 0) |
                              ((wanted & kWritable) != 0 ? POLLOUT : 0));
}

}  // namespace

void pollSockets(std::vector<PollEntry>& entries, int timeoutMs) {
    std::vector<pollfd> fds;
    fds.reserve(entries.size());
    for (const PollEntry& entry : entries) {
        fds.push_back(pollfd{static_cast<int>(entry.handle), pollEvents(entry.wanted), 0});
    }
    const int ready = ::poll(fds.data(), fds.size(), timeoutMs);
    if (ready < 0 && errno != EINTR) {
        fail("poll failed");
    }
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const short got = ready > 0 ? fds[k].revents : 0;
        entries[k].ready = ((got & POLLIN) != 0 ? kReadable : 0) | ((got & POLLOUT) != 0 ? kWritable : 0) |
                           ((got & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? kBroken : 0);
    }
}

// Hosts on the same machine bind the wildcard address on the discovery
// ports, so the simulator must not: it binds the broadcast address and the
// group, which Linux lets coexist with a wildcard binding (SO_REUSEADDR) and
// which still receive the hosts' broadcasts and multicasts.
kmio::Socket broadcastReceiver(std::uint32_t broadcastAddress, std::uint16_t port) {
    kmio::Socket socket = udpSocket(true);
    setInt(socket, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    bindTo(socket, broadcastAddress, port);
    return socket;
}

// IP_MULTICAST_ALL=0 keeps group traffic of other interfaces out.
kmio::Socket multicastReceiver(std::uint32_t group, std::uint16_t port, std::uint32_t interfaceAddress) {
    kmio::Socket socket = udpSocket(true);
    setInt(socket, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    setInt(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0, "Could not set IP_MULTICAST_ALL");
    bindTo(socket, group, port);
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(interfaceAddress);
    if (setsockopt(fdOf(socket), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
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
    if (setsockopt(fdOf(socket), IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof outgoing) != 0) {
        fail("Could not set the multicast interface");
    }
    bindTo(socket, interfaceAddress, 0);
    return socket;
}

std::ptrdiff_t receiveDatagram(const kmio::Socket& socket, std::span<std::uint8_t> buffer,
                               std::uint32_t& from, std::uint16_t& fromPort) {
    sockaddr_in sender{};
    socklen_t size = sizeof sender;
    const ssize_t got = ::recvfrom(fdOf(socket), buffer.data(), buffer.size(), 0,
                                   reinterpret_cast<sockaddr*>(&sender), &size);
    from = ntohl(sender.sin_addr.s_addr);
    fromPort = ntohs(sender.sin_port);
    return got;
}

int sendDatagram(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port,
                 std::span<const std::uint8_t> datagram) {
    const sockaddr_in to = kmio::ipv4SocketAddress(address, port);
    const ssize_t sent = ::sendto(fdOf(socket), datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? errno : 0;
}

kmio::Socket tcpListener(std::uint32_t address, std::uint16_t port) {
    const std::string where = kmio::formatIpv4(address) + ":" + std::to_string(port);
    kmio::Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    const sockaddr_in local = kmio::ipv4SocketAddress(address, port);
    if (!socket || setsockopt(fdOf(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fdOf(socket), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        ::listen(fdOf(socket), 4) != 0) {
        fail("Could not listen on " + where);
    }
    return socket;
}

kmio::Socket acceptConnection(const kmio::Socket& listener, std::uint32_t& address, std::uint16_t& port) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    kmio::Socket client(
        ::accept4(fdOf(listener), reinterpret_cast<sockaddr*>(&from), &size, SOCK_CLOEXEC | SOCK_NONBLOCK));
    address = ntohl(from.sin_addr.s_addr);
    port = ntohs(from.sin_port);
    return client;
}

std::ptrdiff_t receiveStream(const kmio::Socket& socket, std::span<std::uint8_t> buffer) {
    const ssize_t got = ::recv(fdOf(socket), buffer.data(), buffer.size(), 0);
    if (got < 0) {
        return errno == EAGAIN || errno == EINTR ? kWouldBlock : kStreamFailed;
    }
    return got;
}

std::ptrdiff_t sendStream(const kmio::Socket& socket, std::span<const std::uint8_t> data) {
    const ssize_t sent = ::send(fdOf(socket), data.data(), data.size(), MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR ? kWouldBlock : kStreamFailed;
    }
    return sent;
}

// SIGINT and SIGTERM become a readable descriptor in the poll loop, so the
// simulator stops between events and closes every socket on the way out.
StopRequest::StopRequest() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        fail("Could not block signals");
    }
    handle_ = signalfd(-1, &signals, SFD_CLOEXEC);
    if (handle_ < 0) {
        fail("Could not create signalfd");
    }
}

StopRequest::~StopRequest() {
    ::close(static_cast<int>(handle_));
}

kmio::Socket::Native StopRequest::pollHandle() const {
    return handle_;
}

int StopRequest::pollLimitMs() const {
    return -1;
}

int StopRequest::taken() {
    pollfd entry{static_cast<int>(handle_), POLLIN, 0};
    signalfd_siginfo info{};
    if (::poll(&entry, 1, 0) == 1 &&
        ::read(static_cast<int>(handle_), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        return static_cast<int>(info.ssi_signo);
    }
    return 0;
}

// A reader that goes away must not kill us; a thousand devices with TCP
// listeners need more descriptors than the usual soft limit of 1024.
void prepareProcess() {
    std::signal(SIGPIPE, SIG_IGN);
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace kmiosim
