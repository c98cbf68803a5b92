#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <thread>

#include "platform/unique_fd.h"

namespace kmiotest {

// A TCP socket bound to 127.0.0.1 on an ephemeral port; listening with the
// given backlog, or only bound when it is negative (connections are refused).
inline kmio::UniqueFd loopbackSocket(int backlog, std::uint16_t& port) {
    kmio::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    const bool ok = ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                    (backlog < 0 || ::listen(fd.get(), backlog) == 0) &&
                    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0;
    port = ntohs(address.sin_port);
    return ok ? std::move(fd) : kmio::UniqueFd();
}

// The device's side: accepts connections one after another and echoes each
// until the other side closes it, or, with echo off, closes it at once.
class TcpPeer {
public:
    explicit TcpPeer(bool echo = true) : thread_([this, echo] { run(echo); }) {}
    ~TcpPeer() {
        ::shutdown(listener_.get(), SHUT_RDWR);  // ends a pending accept
        thread_.join();
    }
    std::uint16_t port() const { return port_; }

private:
    void run(bool echo) {
        for (;;) {
            const kmio::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, 0));
            if (!client) {
                return;
            }
            char buffer[65536];
            for (ssize_t n; echo && (n = ::recv(client.get(), buffer, sizeof buffer, 0)) > 0;) {
                for (ssize_t done = 0, sent = 0; done < n && sent >= 0; done += sent) {
                    sent = ::send(client.get(), buffer + done, n - done, MSG_NOSIGNAL);
                }
            }
        }
    }

    std::uint16_t port_ = 0;
    kmio::UniqueFd listener_ = loopbackSocket(16, port_);
    std::thread thread_;
};

}  // namespace kmiotest
