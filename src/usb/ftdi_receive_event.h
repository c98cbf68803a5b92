#pragma once

#include <cstdint>
#include <memory>

namespace kmio {

// The event that the D2XX driver signals when bytes arrive (handed to
// FT_SetEventNotification), and the stop request that the receive thread
// waits for together with it, so that close() wakes the thread at once
// whatever the health-check period is. The system's part lives in
// ftdi_receive_event_linux.cpp and ftdi_receive_event_win32.cpp.
//
// Destroy it only after the chip is closed, so that the driver never signals
// a destroyed event.
class FtdiReceiveEvent {
public:
    // What one wait ended with.
    enum class Wake { Received, TimedOut, Stopped, Failed };

    // Not signalled, with the stop flag clear. Throws std::system_error when
    // the system refuses any part of it.
    FtdiReceiveEvent();
    ~FtdiReceiveEvent();
    FtdiReceiveEvent(const FtdiReceiveEvent&) = delete;
    FtdiReceiveEvent& operator=(const FtdiReceiveEvent&) = delete;

    // The pointer to hand to FT_SetEventNotification.
    void* driverArgument() noexcept;

    // Waits for the event or the stop request, at most timeoutMs (0: without
    // limit). A stop already requested returns Stopped at once. The driver
    // says nothing about why it signalled, so Received only means "look at
    // the queue again"; a failure of the wait itself is Failed.
    Wake wait(std::uint32_t timeoutMs);

    // Marks the stop as requested and wakes the waiting thread. Safe to call
    // from any thread, before or after the thread started waiting.
    void requestStop() noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kmio
