#include <windows.h>

#include <system_error>

#include "platform/wake_event.h"

namespace kmio {

namespace {

HANDLE handleOf(WakeEvent::Native native) {
    return reinterpret_cast<HANDLE>(native);
}

}  // namespace

// A manual-reset event: it stays set until reset(), as the contract asks, and
// WSAWaitForMultipleEvents takes it beside the sockets' own events.
WakeEvent::WakeEvent()
    : handle_(reinterpret_cast<Native>(::CreateEventW(nullptr, TRUE, FALSE, nullptr))),
      signalHandle_(handle_) {
    if (handle_ == 0) {
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), "CreateEvent");
    }
}

WakeEvent::~WakeEvent() {
    ::CloseHandle(handleOf(handle_));
}

bool WakeEvent::signal() noexcept {
    return ::SetEvent(handleOf(signalHandle_)) != 0;
}

void WakeEvent::reset() noexcept {
    ::ResetEvent(handleOf(handle_));
}

}  // namespace kmio
