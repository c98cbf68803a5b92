#pragma once

#include <cstdint>
#include <utility>

namespace kmio {

// Owns one platform socket handle (a descriptor on POSIX, a SOCKET on
// Windows) and closes it when destroyed, so that no error path of a connect
// attempt has to remember to close by hand.
class Socket {
public:
    // Wide enough for either platform's handle; all bits set means "none",
    // which is also the value Windows uses for an invalid socket.
    using Native = std::intptr_t;
    static constexpr Native kInvalid = -1;

    Socket() = default;
    explicit Socket(Native handle) noexcept : handle_(handle) {}
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket(Socket&& other) noexcept : handle_(other.release()) {}
    Socket& operator=(Socket&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~Socket() { reset(); }

    Native get() const noexcept { return handle_; }
    bool valid() const noexcept { return handle_ != kInvalid; }
    explicit operator bool() const noexcept { return valid(); }

    // Gives up ownership without closing.
    Native release() noexcept { return std::exchange(handle_, kInvalid); }

    // Closes the current handle (if any) and takes ownership of handle.
    void reset(Native handle = kInvalid) noexcept;

    // Shuts the connection down in both directions; the handle stays open.
    void shutdownBoth() noexcept;

private:
    Native handle_ = kInvalid;
};

// Starts the platform's socket library for this process, once: WinSock 2.2
// on Windows, which stays started until the process exits; nothing elsewhere.
// Throws std::system_error with the system's code when it cannot start.
void startSocketLibrary();

}  // namespace kmio
