#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "support/socket_calls.h"

#if !defined(_WIN32)
#include "platform/unique_fd.h"
#endif

namespace kmiotest {

// A TCP socket bound to 127.0.0.1 on an ephemeral port; listening with the
// given backlog, or only bound when it is negative (connections are refused).
inline kmio::Socket tcpListener(int backlog, std::uint16_t& port) {
    kmio::Socket socket = openSocket(SOCK_STREAM);
    const bool ok =
        bindTo(socket, INADDR_LOOPBACK, 0) && (backlog < 0 || ::listen(raw(socket), backlog) == 0);
    port = localPort(socket);
    return ok ? std::move(socket) : kmio::Socket();
}

#if !defined(_WIN32)
// The same as a descriptor, for the POSIX-only tests that read and write it directly.
inline kmio::UniqueFd loopbackSocket(int backlog, std::uint16_t& port) {
    return kmio::UniqueFd(static_cast<int>(tcpListener(backlog, port).release()));
}
#endif

// The device's side: accepts connections one after another and echoes each
// until the other side closes it, or, with echo off, closes it at once.
class TcpPeer {
public:
    explicit TcpPeer(bool echo = true) : thread_([this, echo] { run(echo); }) {}
    ~TcpPeer() {
        stop_ = true;
        thread_.join();
    }
    std::uint16_t port() const { return port_; }

private:
    void run(bool echo) {
        // Waits in short steps rather than in accept, which no portable call
        // can interrupt from another thread.
        while (!stop_) {
            if (!waitReadable(listener_, std::chrono::milliseconds(20))) {
                continue;
            }
            const kmio::Socket client(
                static_cast<kmio::Socket::Native>(::accept(raw(listener_), nullptr, nullptr)));
            char buffer[65536];
            for (std::ptrdiff_t n; client && echo && (n = receiveBytes(client, buffer, sizeof buffer)) > 0;) {
                for (std::ptrdiff_t done = 0, sent = 0; done < n && sent >= 0; done += sent) {
                    sent = sendBytes(client, buffer + done, static_cast<std::size_t>(n - done));
                }
            }
        }
    }

    std::uint16_t port_ = 0;
    kmio::Socket listener_ = tcpListener(16, port_);
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace kmiotest
