#include "signal_watch.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace kmiotool {

SignalWatch::SignalWatch() {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    if (int rc = pthread_sigmask(SIG_BLOCK, &mask, &oldMask_); rc != 0) {
        throw std::system_error(rc, std::system_category(), "pthread_sigmask");
    }
    fd_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) {
        int error = errno;
        pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
        throw std::system_error(error, std::system_category(), "signalfd");
    }
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &oldPipeAction_);
}

int SignalWatch::take() {
    signalfd_siginfo info{};
    if (::read(fd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return 0;
    }
    return static_cast<int>(info.ssi_signo);
}

SignalWatch::~SignalWatch() {
    ::close(fd_);
    sigaction(SIGPIPE, &oldPipeAction_, nullptr);
    pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
}

}  // namespace kmiotool
