#pragma once

#include <utility>

namespace kmio {

// Owns one POSIX file descriptor and closes it when destroyed, so that no
// error path has to remember to close by hand.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    explicit operator bool() const noexcept { return valid(); }

    // Gives up ownership without closing.
    int release() noexcept { return std::exchange(fd_, -1); }

    // Closes the current descriptor (if any) and takes ownership of fd.
    void reset(int fd = -1) noexcept;

private:
    int fd_ = -1;
};

}  // namespace kmio
