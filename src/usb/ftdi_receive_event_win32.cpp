// The receive event on Windows: an auto-reset Win32 event that the driver
// sets when bytes arrive, and a stop event of the same kind that close()
// sets. The receive thread waits on both at once, the receive event first,
// so close() wakes it at once whatever the health-check period is.
#include <windows.h>

#include <atomic>
#include <memory>
#include <system_error>

#include "usb/ftdi_receive_event.h"

namespace kmio {

struct FtdiReceiveEvent::State {
    HANDLE received = nullptr;
    HANDLE stop = nullptr;
    // Sticky, unlike the auto-reset stop event, which one wait consumes: a
    // stop once requested answers every later wait at once.
    std::atomic<bool> stopRequested{false};

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
        if (received != nullptr) {
            ::CloseHandle(received);
        }
        if (stop != nullptr) {
            ::CloseHandle(stop);
        }
    }

    // Both auto-reset, not signalled, unnamed; the stop event first.
    bool initialise() {
        stop = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
        received = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
        return stop != nullptr && received != nullptr;
    }
};

FtdiReceiveEvent::FtdiReceiveEvent() : state_(std::make_unique<State>()) {
    if (!state_->initialise()) {
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                                "Could not create the receive event");
    }
}

FtdiReceiveEvent::~FtdiReceiveEvent() = default;

// The driver takes the event handle itself as its argument.
void* FtdiReceiveEvent::driverArgument() noexcept {
    return state_->received;
}

FtdiReceiveEvent::Wake FtdiReceiveEvent::wait(std::uint32_t timeoutMs) {
    if (state_->stopRequested.load()) {
        return Wake::Stopped;
    }
    const HANDLE events[2] = {state_->received, state_->stop};
    const DWORD waited =
        ::WaitForMultipleObjects(2, events, FALSE, timeoutMs == 0 ? INFINITE : static_cast<DWORD>(timeoutMs));
    if (state_->stopRequested.load() || waited == WAIT_OBJECT_0 + 1) {
        return Wake::Stopped;
    }
    if (waited == WAIT_OBJECT_0) {
        return Wake::Received;
    }
    return waited == WAIT_TIMEOUT ? Wake::TimedOut : Wake::Failed;
}

void FtdiReceiveEvent::requestStop() noexcept {
    state_->stopRequested.store(true);
    ::SetEvent(state_->stop);
}

}  // namespace kmio
