#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <system_error>

namespace kmiotool {

// A descriptor that becomes readable once notify() was called from any
// thread, so that a poll loop can wait for it next to stdin and signals.
class EventFd {
public:
    EventFd() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (fd_ < 0) {
            throw std::system_error(errno, std::system_category(), "eventfd");
        }
    }
    EventFd(const EventFd&) = delete;
    EventFd& operator=(const EventFd&) = delete;
    ~EventFd() { ::close(fd_); }

    int fd() const { return fd_; }
    void notify() const {
        std::uint64_t one = 1;
        // Only fails when the counter would overflow, which leaves it readable anyway.
        [[maybe_unused]] auto written = ::write(fd_, &one, sizeof one);
    }

private:
    int fd_;
};

}  // namespace kmiotool
