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
#include "platform/socket_options.h"
#include "sim_net.h"
#include "sim_net_platform.h"

namespace kmiosim {

namespace {

int fdOf(const kmio::Socket& socket) {
    return static_cast<int>(socket.get());
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
        failWithLastError("poll failed");
    }
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const short got = ready > 0 ? fds[k].revents : 0;
        entries[k].ready = ((got & POLLIN) != 0 ? kReadable : 0) | ((got & POLLOUT) != 0 ? kWritable : 0) |
                           ((got & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? kBroken : 0);
    }
}

kmio::Socket newSocket(int type, bool nonBlocking) {
    return kmio::Socket(::socket(AF_INET, type | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), 0));
}

// Hosts on the same machine bind the wildcard address on the discovery
// ports, so the simulator must not: it binds the broadcast address and the
// group, which Linux lets coexist with a wildcard binding (SO_REUSEADDR) and
// which still receive the hosts' broadcasts and multicasts.
std::uint32_t receiverBindAddress(std::uint32_t broadcastOrGroup) {
    return broadcastOrGroup;
}

// IP_MULTICAST_ALL=0 keeps group traffic of other interfaces out.
void receiveJoinedGroupsOnly(const kmio::Socket& socket) {
    if (kmio::setSocketInt(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0) != 0) {
        failWithLastError("Could not set IP_MULTICAST_ALL");
    }
}

// A reader that goes away must not raise SIGPIPE.
int streamSendFlags() {
    return MSG_NOSIGNAL;
}

bool isWouldBlock(int error) {
    return error == EAGAIN || error == EINTR;
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

// SIGINT and SIGTERM become a readable descriptor in the poll loop, so the
// simulator stops between events and closes every socket on the way out.
StopRequest::StopRequest() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        failWithLastError("Could not block signals");
    }
    handle_ = signalfd(-1, &signals, SFD_CLOEXEC);
    if (handle_ < 0) {
        failWithLastError("Could not create signalfd");
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
