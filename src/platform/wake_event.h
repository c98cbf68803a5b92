#pragma once

#include <cstdint>

namespace kmio {

// An event that a waiting thread includes in its wait set and that another
// thread sets to wake it: the stop signal of receiving threads and of the
// discovery connection. Once signalled it stays signalled until reset(), so
// a late waiter still sees the request.
//
// The native handle is what the platform's wait takes: on Linux an eventfd
// descriptor to poll for POLLIN; on other POSIX systems the read end of a
// non-blocking pipe, also polled for POLLIN; on Windows a manual-reset event
// handle for WaitForMultipleObjects or WSAWaitForMultipleEvents.
class WakeEvent {
public:
    // Wide enough for either platform's handle, like Socket::Native.
    using Native = std::intptr_t;

    // Throws std::system_error when the event cannot be created.
    WakeEvent();
    ~WakeEvent();
    WakeEvent(const WakeEvent&) = delete;
    WakeEvent& operator=(const WakeEvent&) = delete;

    Native native() const noexcept { return handle_; }

    // Sets the event. Safe from any thread; never blocks. False, with the
    // thread's last system error set, when the system refused.
    bool signal() noexcept;

    // Clears the signalled state.
    void reset() noexcept;

private:
    Native handle_;
    // What signal() writes to: the pipe's write end, or handle_ itself where
    // one handle does both.
    Native signalHandle_;
};

}  // namespace kmio
