#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "platform/wake_event.h"

namespace kmio {

WakeEvent::WakeEvent() : handle_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), signalHandle_(handle_) {
    if (handle_ < 0) {
        throw std::system_error(errno, std::system_category(), "eventfd");
    }
}

WakeEvent::~WakeEvent() {
    ::close(static_cast<int>(handle_));
}

bool WakeEvent::signal() noexcept {
    const std::uint64_t one = 1;
    // The counter cannot overflow in practice; EAGAIN would mean it is
    // already readable, which is all a waiter needs.
    const auto n = ::write(static_cast<int>(signalHandle_), &one, sizeof one);
    return n == sizeof one || errno == EAGAIN;
}

void WakeEvent::reset() noexcept {
    std::uint64_t value = 0;
    [[maybe_unused]] auto n = ::read(static_cast<int>(handle_), &value, sizeof value);
}

}  // namespace kmio
