#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "support/pty_pair.h"

namespace kmiotest {

// A pseudo-terminal whose far end echoes every byte the device side sends,
// for as long as the object lives: a serial device that answers in order.
class EchoingPty {
public:
    EchoingPty() : thread_([this] { echo(); }) {}
    EchoingPty(const EchoingPty&) = delete;
    EchoingPty& operator=(const EchoingPty&) = delete;
    ~EchoingPty() {
        stop_ = true;
        thread_.join();
    }
    std::string locator() const { return pty_.locator(); }

private:
    // Writes wait for room only while the object lives: once nothing reads
    // the device side any more (its program ended), the echo is dropped.
    void echo() {
        ::fcntl(pty_.master.get(), F_SETFL, ::fcntl(pty_.master.get(), F_GETFL) | O_NONBLOCK);
        char buffer[4096];
        while (!stop_) {
            pollfd ready{pty_.master.get(), POLLIN, 0};
            if (::poll(&ready, 1, 20) <= 0 || (ready.revents & POLLIN) == 0) {
                continue;
            }
            const ssize_t n = ::read(pty_.master.get(), buffer, sizeof buffer);
            for (ssize_t done = 0; done < n && !stop_;) {
                const ssize_t written =
                    ::write(pty_.master.get(), buffer + done, static_cast<std::size_t>(n - done));
                if (written > 0) {
                    done += written;
                } else if (errno == EAGAIN) {
                    pollfd room{pty_.master.get(), POLLOUT, 0};
                    ::poll(&room, 1, 20);
                } else {
                    break;
                }
            }
        }
    }

    PtyPair pty_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace kmiotest
