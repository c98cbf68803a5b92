#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "console_wait.h"

namespace kmiotool {

// SIGINT and SIGTERM arrive on a signalfd; the end is an eventfd that stays
// readable once written.
struct ConsoleWait::State {
    sigset_t oldMask{};
    struct sigaction oldPipeAction {};
    int signals = -1;
    int end = -1;

    // Takes a caught signal off the descriptor: true when there was one. A
    // signal left pending would strike as soon as the old mask comes back.
    bool takeSignal() const {
        signalfd_siginfo info{};
        return ::read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info);
    }
};

ConsoleWait::ConsoleWait() : state_(std::make_unique<State>()) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    if (int rc = pthread_sigmask(SIG_BLOCK, &mask, &state_->oldMask); rc != 0) {
        throw std::system_error(rc, std::system_category(), "pthread_sigmask");
    }
    state_->signals = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    state_->end = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state_->signals < 0 || state_->end < 0) {
        const int error = errno;
        ::close(state_->signals);
        ::close(state_->end);
        pthread_sigmask(SIG_SETMASK, &state_->oldMask, nullptr);
        throw std::system_error(error, std::system_category(), "signalfd/eventfd");
    }
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &state_->oldPipeAction);
}

ConsoleWait::~ConsoleWait() {
    ::close(state_->signals);
    ::close(state_->end);
    sigaction(SIGPIPE, &state_->oldPipeAction, nullptr);
    pthread_sigmask(SIG_SETMASK, &state_->oldMask, nullptr);
}

void ConsoleWait::notifyEnd() {
    const std::uint64_t one = 1;
    // Only fails when the counter would overflow, which leaves it readable anyway.
    [[maybe_unused]] auto written = ::write(state_->end, &one, sizeof one);
}

ConsoleWait::Woken ConsoleWait::wait(bool watchInput, int timeoutMs) {
    pollfd fds[3] = {{state_->signals, POLLIN, 0}, {state_->end, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(fds, watchInput ? 3 : 2, timeoutMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            throw std::system_error(errno, std::system_category(), "poll");
        }
        if (ready == 0) {
            return Woken::TimedOut;
        }
        if (fds[0].revents != 0 && state_->takeSignal()) {
            return Woken::Stop;
        }
        if (fds[1].revents != 0) {
            return Woken::End;
        }
        if (fds[2].revents != 0) {
            return Woken::Input;
        }
    }
}

std::ptrdiff_t ConsoleWait::readInput(std::uint8_t* buffer, std::size_t size) {
    const ssize_t n = ::read(STDIN_FILENO, buffer, size);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
        return -1;
    }
    return n < 0 ? 0 : n;
}

bool ConsoleWait::writeOutput(const void* data, std::size_t length) {
    const auto* bytes = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, bytes, length);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        bytes += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace kmiotool
