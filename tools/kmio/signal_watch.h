#pragma once

#include <signal.h>

namespace kmiotool {

// Turns SIGINT and SIGTERM into a readable descriptor. The signals are blocked
// in the calling thread, and so in every thread started after it (the
// library's receiving and discovery threads inherit the mask): create it
// before opening devices or starting discovery. SIGPIPE is ignored, so that a
// closed stdout shows as a write error instead of killing the tool before it
// closes its device. The old mask comes back when the object is destroyed.
class SignalWatch {
public:
    SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;
    ~SignalWatch();

    int fd() const { return fd_; }
    // Takes a caught signal off the descriptor and returns its number, or 0
    // when none is pending. A signal left pending would strike as soon as the
    // old mask comes back, so every caught one must be taken.
    int take();

private:
    sigset_t oldMask_;
    struct sigaction oldPipeAction_;
    int fd_;
};

}  // namespace kmiotool
