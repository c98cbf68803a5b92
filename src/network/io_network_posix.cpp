// The POSIX socket calls behind IoNetwork.
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <memory>
#include <string>

#include "network/io_network.h"

namespace kmio {

namespace {

using Clock = std::chrono::steady_clock;

int fdOf(const Socket& socket) {
    return static_cast<int>(socket.get());
}

// Waits until a non-blocking connect has finished, then asks the socket how
// it ended. Linux reports a refused connection as writable at once, so the
// outcome must be read from SO_ERROR rather than inferred from writability.
bool awaitConnect(int fd, std::uint32_t timeoutMs) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    pollfd entry{fd, POLLOUT, 0};
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int wait = static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
        const int ready = ::poll(&entry, 1, wait);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        break;
    }
    int soError = 0;
    socklen_t size = sizeof soError;
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &size) == 0 && soError == 0;
}

}  // namespace

// poll takes the socket and the wake-up descriptor as they are: nothing to keep.
struct IoNetwork::WaitState {};

void IoNetwork::WaitStateDeleter::operator()(WaitState* state) const noexcept {
    delete state;
}

Socket IoNetwork::connectAddress(const addrinfo& address, std::uint32_t timeoutMs, bool& creationFailed) {
    Socket candidate(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!candidate) {
        creationFailed = true;
        return {};
    }
    const int fd = fdOf(candidate);
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        return {};
    }
    if (::connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
        // EINTR leaves the connect running in the background, like EINPROGRESS.
        if ((errno != EINPROGRESS && errno != EINTR) || !awaitConnect(fd, timeoutMs)) {
            return {};
        }
    }
    if (::fcntl(fd, F_SETFL, flags) < 0) {
        return {};
    }
    return candidate;
}

// A name that does not exist, or a resolver that cannot answer now.
bool IoNetwork::isNameNotFound(int resolverError) {
    return resolverError == EAI_NONAME || resolverError == EAI_NODATA || resolverError == EAI_AGAIN;
}

IoNetwork::Readiness IoNetwork::waitReadable(int timeoutMs, int& error) {
    pollfd entries[2] = {{fdOf(socket_), POLLIN, 0}, {static_cast<int>(wake_->native()), POLLIN, 0}};
    if (::poll(entries, 2, timeoutMs) < 0) {
        error = errno;
        return Readiness::Failed;
    }
    // A pending close wins: the pass ends at once and no callback follows it.
    if (entries[1].revents != 0) {
        return Readiness::Idle;
    }
    // Hang-up and error states count as readable: the pending-bytes query
    // then tells a closed peer (nothing pending) from data still queued.
    return entries[0].revents != 0 ? Readiness::Readable : Readiness::Idle;
}

bool IoNetwork::pendingBytes(std::size_t& pending) {
    int count = 0;
    if (::ioctl(fdOf(socket_), FIONREAD, &count) < 0 || count < 0) {
        return false;
    }
    pending = static_cast<std::size_t>(count);
    return true;
}

std::ptrdiff_t IoNetwork::receiveSome(std::uint8_t* buffer, std::size_t length, int& error) {
    const ssize_t n = ::recv(fdOf(socket_), buffer, length, 0);
    if (n < 0) {
        error = errno;
    }
    return n;
}

std::ptrdiff_t IoNetwork::sendSome(const std::uint8_t* data, std::size_t length, int& error) {
    if (!socket_) {
        // The receiving thread has already closed the connection.
        error = EBADF;
        return -1;
    }
    const ssize_t n = ::send(fdOf(socket_), data, length, MSG_NOSIGNAL);
    if (n < 0) {
        error = errno;
    }
    return n;
}

bool IoNetwork::isTimedOut(int error) {
    // EAGAIN would come from a send or receive timeout; none is set, but it
    // means the same thing if a platform default ever brings one.
    return error == ETIMEDOUT || error == EAGAIN || error == EWOULDBLOCK;
}

bool IoNetwork::isInterrupted(int error) {
    return error == EINTR;
}

}  // namespace kmio
