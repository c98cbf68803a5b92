#pragma once

#include <poll.h>
#include <unistd.h>

#include <atomic>
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
    void echo() {
        char buffer[4096];
        while (!stop_) {
            pollfd ready{pty_.master.get(), POLLIN, 0};
            if (::poll(&ready, 1, 20) <= 0 || (ready.revents & POLLIN) == 0) {
                continue;
            }
            const ssize_t n = ::read(pty_.master.get(), buffer, sizeof buffer);
            for (ssize_t done = 0, written = 0; done < n && written >= 0; done += written) {
                written = ::write(pty_.master.get(), buffer + done, static_cast<std::size_t>(n - done));
            }
        }
    }

    PtyPair pty_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace kmiotest
