#pragma once

#include "platform/unique_fd.h"

namespace kmio {

// A descriptor that a waiting thread can include in its poll() set and that
// another thread can make readable to wake it: the stop signal of receiving
// threads and of the discovery connection. Once signalled it stays readable
// until reset(), so a late waiter still sees the request.
class WakeEvent {
public:
    // Throws std::system_error when the descriptor cannot be created.
    WakeEvent();
    WakeEvent(const WakeEvent&) = delete;
    WakeEvent& operator=(const WakeEvent&) = delete;

    // Descriptor to poll for POLLIN.
    int fd() const noexcept { return fd_.get(); }

    // Makes fd() readable. Safe from any thread; never blocks.
    void signal() noexcept;

    // Clears the signalled state.
    void reset() noexcept;

private:
    UniqueFd fd_;
};

}  // namespace kmio
