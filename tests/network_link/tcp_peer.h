#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "platform/unique_fd.h"
#include "platform/wake_event.h"

namespace kmio::test {

// A TCP socket bound to 127.0.0.1 on an ephemeral port; listening with the
// given backlog, or only bound (then every connection to it is refused).
inline UniqueFd loopbackSocket(int backlog, std::uint16_t& port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        (backlog >= 0 && ::listen(fd.get(), backlog) != 0) ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return {};
    }
    port = ntohs(address.sin_port);
    return fd;
}

// The peer device on loopback: accepts connections one after another and
// either echoes every byte back or, with echo off, closes each connection as
// soon as it is accepted.
class TcpPeer {
public:
    explicit TcpPeer(bool echo = true) : listener_(loopbackSocket(8, port_)), echo_(echo) {
        thread_ = std::thread([this] { run(); });
    }
    ~TcpPeer() {
        stop_.signal();
        thread_.join();
    }
    std::uint16_t port() const { return port_; }
    int accepted() const { return accepted_.load(); }

private:
    // Waits for fd or the stop signal; false once stopped.
    bool wait(int fd) {
        pollfd entries[2] = {{fd, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
        return ::poll(entries, 2, -1) > 0 && entries[1].revents == 0;
    }
    void run() {
        while (wait(listener_.get())) {
            UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            ++accepted_;
            char buffer[65536];
            while (echo_ && client && wait(client.get())) {
                const ssize_t n = ::recv(client.get(), buffer, sizeof buffer, 0);
                if (n <= 0) {
                    break;
                }
                for (ssize_t done = 0, sent = 0; done < n && sent >= 0; done += sent) {
                    sent = ::send(client.get(), buffer + done, n - done, MSG_NOSIGNAL);
                }
            }
        }
    }

    std::uint16_t port_ = 0;
    UniqueFd listener_;
    bool echo_;
    WakeEvent stop_;
    std::atomic<int> accepted_{0};
    std::thread thread_;
};

}  // namespace kmio::test
