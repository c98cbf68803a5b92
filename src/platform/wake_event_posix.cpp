#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/wake_event.h"

namespace kmio {

namespace {

bool makeNonBlockingAndCloseOnExec(int fd) {
    const int status = ::fcntl(fd, F_GETFL);
    return status >= 0 && ::fcntl(fd, F_SETFL, status | O_NONBLOCK) == 0 &&
           ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace

// The self-pipe: signal() writes a byte, the pipe's read end polls readable
// until reset() drains it. Both ends are non-blocking, so a full pipe (many
// signals without a reset) never blocks the signalling thread; it is
// readable already, which is all a waiter needs.
WakeEvent::WakeEvent() {
    int ends[2];
    if (::pipe(ends) != 0) {
        throw std::system_error(errno, std::system_category(), "pipe");
    }
    if (!makeNonBlockingAndCloseOnExec(ends[0]) || !makeNonBlockingAndCloseOnExec(ends[1])) {
        const int error = errno;
        ::close(ends[0]);
        ::close(ends[1]);
        throw std::system_error(error, std::system_category(), "fcntl");
    }
    handle_ = ends[0];
    signalHandle_ = ends[1];
}

WakeEvent::~WakeEvent() {
    ::close(static_cast<int>(handle_));
    ::close(static_cast<int>(signalHandle_));
}

bool WakeEvent::signal() noexcept {
    const char byte = 1;
    const auto n = ::write(static_cast<int>(signalHandle_), &byte, 1);
    return n == 1 || errno == EAGAIN;
}

void WakeEvent::reset() noexcept {
    char drain[256];
    while (::read(static_cast<int>(handle_), drain, sizeof drain) > 0) {
    }
}

}  // namespace kmio
