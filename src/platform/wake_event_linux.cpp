#include "platform/wake_event.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace kmio {

WakeEvent::WakeEvent() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!fd_) {
        throw std::system_error(errno, std::system_category(), "eventfd");
    }
}

void WakeEvent::signal() noexcept {
    const std::uint64_t one = 1;
    // The counter cannot overflow in practice; a failed write leaves the event
    // readable anyway, which is all a waiter needs.
    [[maybe_unused]] auto n = ::write(fd_.get(), &one, sizeof one);
}

void WakeEvent::reset() noexcept {
    std::uint64_t value = 0;
    [[maybe_unused]] auto n = ::read(fd_.get(), &value, sizeof value);
}

}  // namespace kmio
