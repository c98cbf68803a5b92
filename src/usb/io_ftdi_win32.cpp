// The receive event of IoFtdi on Windows: an auto-reset Win32 event that the
// driver sets when bytes arrive, and a stop event of the same kind that
// close() sets. The receive thread waits on both at once, the receive event
// first, so close() wakes it at once whatever the health-check period is.
#include <windows.h>

#include <atomic>
#include <memory>

#include "usb/io_ftdi.h"

namespace kmio {

struct IoFtdi::ReceiveEvent {
    HANDLE received = nullptr;
    HANDLE stop = nullptr;
    // Sticky, unlike the auto-reset stop event, which one wait consumes: a
    // stop once requested answers every later wait at once.
    std::atomic<bool> stopRequested{false};

    ReceiveEvent() = default;
    ReceiveEvent(const ReceiveEvent&) = delete;
    ReceiveEvent& operator=(const ReceiveEvent&) = delete;
    ~ReceiveEvent() {
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

void IoFtdi::ReceiveEventDeleter::operator()(ReceiveEvent* event) const noexcept {
    delete event;
}

bool IoFtdi::createReceiveEvent() {
    std::unique_ptr<ReceiveEvent, ReceiveEventDeleter> event(new ReceiveEvent);
    if (!event->initialise()) {
        return false;
    }
    event_ = std::move(event);
    return true;
}

// The driver takes the event handle itself as its argument.
void* IoFtdi::receiveEventArgument() {
    return event_->received;
}

IoFtdi::Wake IoFtdi::waitForReceiveEvent(std::uint32_t timeoutMs) {
    if (event_->stopRequested.load()) {
        return Wake::Stopped;
    }
    const HANDLE events[2] = {event_->received, event_->stop};
    const DWORD waited =
        ::WaitForMultipleObjects(2, events, FALSE, timeoutMs == 0 ? INFINITE : static_cast<DWORD>(timeoutMs));
    if (event_->stopRequested.load() || waited == WAIT_OBJECT_0 + 1) {
        return Wake::Stopped;
    }
    if (waited == WAIT_OBJECT_0) {
        return Wake::Received;
    }
    return waited == WAIT_TIMEOUT ? Wake::TimedOut : Wake::Failed;
}

void IoFtdi::requestStop() {
    if (!event_) {
        return;
    }
    event_->stopRequested.store(true);
    ::SetEvent(event_->stop);
}

}  // namespace kmio
