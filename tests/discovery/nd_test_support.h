#pragma once

// Helpers shared by the discovery tests: plain UDP sockets that play the
// device side without any of the code under test, datagrams written out by
// hand from the layout table, and a log sink that collects lines.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "discovery/discovery_log.h"
#include "platform/socket_address.h"
#include "platform/unique_fd.h"

namespace ndtest {

using Bytes = std::vector<std::uint8_t>;
using TokenBytes = std::array<std::uint8_t, 16>;

constexpr std::uint32_t kLoopback = 0x7F000001;           // 127.0.0.1
constexpr std::uint32_t kLoopbackBroadcast = 0x7FFFFFFF;  // 127.255.255.255
constexpr std::uint32_t kGroup = 0xEF010115;              // 239.1.1.21

// A datagram header written byte by byte from the layout table.
inline Bytes handHeader(std::uint16_t total, std::uint8_t opcode, std::uint32_t version,
                        std::uint32_t selector, const std::string& serial, const TokenBytes& token) {
    const auto le = [](Bytes& b, std::uint32_t v, int n) {
        for (int i = 0; i < n; ++i) {
            b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        }
    };
    Bytes b = {0xC2};
    le(b, total - 3u, 2);
    b.push_back(opcode);
    b.insert(b.end(), {'P', 'D', 'N', 'K'});
    le(b, version, 4);
    le(b, selector, 4);
    for (std::size_t i = 0; i < 64; ++i) {
        b.push_back(i < serial.size() ? static_cast<std::uint8_t>(serial[i]) : 0);
    }
    b.insert(b.end(), token.begin(), token.end());
    return b;
}

// A full datagram: hand header, payload, zero padding to a multiple of 4.
inline Bytes handDatagram(std::uint8_t opcode, std::uint32_t version, std::uint32_t selector,
                          const std::string& serial, const TokenBytes& token, const Bytes& payload) {
    const auto total = static_cast<std::uint16_t>((96 + payload.size() + 3) / 4 * 4);
    Bytes b = handHeader(total, opcode, version, selector, serial, token);
    b.insert(b.end(), payload.begin(), payload.end());
    b.resize(total, 0);
    return b;
}

struct Datagram {
    Bytes bytes;
    std::uint32_t source = 0;
    std::uint16_t sourcePort = 0;
};

// A plain UDP socket for the device side of a test.
class UdpSocket {
public:
    // Bound to address:port with SO_REUSEADDR (port 0: any port).
    UdpSocket(std::uint32_t address, std::uint16_t port)
        : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (!fd_) {
            throw std::runtime_error("socket");
        }
        int one = 1;
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
        const sockaddr_in local = kmio::ipv4SocketAddress(address, port);
        if (::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
            throw std::runtime_error("bind");
        }
    }

    // Receives the group on loopback only: this socket is bound to the group
    // address and ignores every other membership on the machine.
    void joinGroupOnLoopback() {
        int zero = 0;
        ::setsockopt(fd_.get(), IPPROTO_IP, IP_MULTICAST_ALL, &zero, sizeof zero);
        ip_mreq m{};
        m.imr_multiaddr.s_addr = htonl(kGroup);
        m.imr_interface.s_addr = htonl(kLoopback);
        if (::setsockopt(fd_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) != 0) {
            throw std::runtime_error("IP_ADD_MEMBERSHIP");
        }
    }

    void multicastFromLoopback() {
        in_addr out{};
        out.s_addr = htonl(kLoopback);
        ::setsockopt(fd_.get(), IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out);
    }

    void sendTo(std::uint32_t address, std::uint16_t port, const Bytes& bytes) const {
        const sockaddr_in to = kmio::ipv4SocketAddress(address, port);
        if (::sendto(fd_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                     sizeof to) < 0) {
            throw std::runtime_error("sendto");
        }
    }

    // Next datagram within the time limit.
    std::optional<Datagram> receive(std::chrono::milliseconds limit) const {
        pollfd p{fd_.get(), POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) {
            return std::nullopt;
        }
        Datagram d;
        d.bytes.resize(65536);
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t n = ::recvfrom(fd_.get(), d.bytes.data(), d.bytes.size(), 0,
                                     reinterpret_cast<sockaddr*>(&from), &length);
        if (n < 0) {
            return std::nullopt;
        }
        d.bytes.resize(static_cast<std::size_t>(n));
        d.source = ntohl(from.sin_addr.s_addr);
        d.sourcePort = ntohs(from.sin_port);
        return d;
    }

    // The first datagram that satisfies `wanted`, skipping others (the ports
    // are shared with anything else on the machine that speaks the protocol).
    std::optional<Datagram> receiveMatching(const std::function<bool(const Datagram&)>& wanted,
                                            std::chrono::milliseconds limit = std::chrono::seconds(5)) const {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return std::nullopt;
            }
            auto d = receive(left);
            if (d && wanted(*d)) {
                return d;
            }
        }
    }

private:
    kmio::UniqueFd fd_;
};

inline TokenBytes tokenOf(const Bytes& datagram) {
    TokenBytes t{};
    if (datagram.size() >= 96) {
        std::copy(datagram.begin() + 80, datagram.begin() + 96, t.begin());
    }
    return t;
}

// Device side of the tests, on plain sockets: answers every Discover Request
// that reaches 127.255.255.255:65111 by unicast to its source.
class Responder {
public:
    explicit Responder(std::string serial = "nd-responder")
        : serial_(std::move(serial)), listener_(kLoopbackBroadcast, 65111), sender_(kLoopback, 0) {
        thread_ = std::thread([this] { run(); });
    }
    ~Responder() {
        stop_ = true;
        thread_.join();
    }
    // A silent responder hears requests but does not answer.
    void setSilent(bool silent) { silent_ = silent; }
    // The raw request answered last.
    Bytes lastRequest() {
        const std::lock_guard lock(mutex_);
        return lastRequest_;
    }
    // Unicast to the host's port, as a device's reply travels.
    void sendToHost(const Bytes& datagram) const { sender_.sendTo(kLoopback, 65111, datagram); }

private:
    void run() {
        while (!stop_) {
            auto d = listener_.receive(std::chrono::milliseconds(100));
            if (!d || silent_ || d->bytes.size() < 96 || d->bytes[3] != 0x21 || d->bytes[4] != 'P') {
                continue;
            }
            {
                const std::lock_guard lock(mutex_);
                lastRequest_ = d->bytes;
            }
            // Protocol 42, available, port 55550, info "sim".
            const Bytes reply = handDatagram(0xA1, 1, 7, serial_, tokenOf(d->bytes),
                                             {42, 1, 0xFE, 0xD8, 3, 's', 'i', 'm', 0});
            sender_.sendTo(d->source, d->sourcePort, reply);
        }
    }

    std::string serial_;
    UdpSocket listener_;
    UdpSocket sender_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> silent_{false};
    std::mutex mutex_;
    Bytes lastRequest_;
    std::thread thread_;
};

// Collects the discovery log's lines while it lives, with every level enabled.
class LogCapture {
public:
    explicit LogCapture(unsigned mask = 7) : previousMask_(kalometnd::logMask()) {
        kalometnd::setLogMask(mask);
        kalometnd::setLogSink([this](unsigned level, const std::string& line) {
            const std::lock_guard lock(mutex_);
            lines_.push_back({level, line});
        });
    }
    ~LogCapture() {
        kalometnd::setLogSink({});
        kalometnd::setLogMask(previousMask_);
    }
    std::vector<std::pair<unsigned, std::string>> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }
    // True once a line of the level begins with prefix (waits up to 5 s).
    bool waitFor(unsigned level, const std::string& prefix) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        do {
            for (const auto& [l, text] : lines()) {
                if (l == level && text.rfind(prefix, 0) == 0) {
                    return true;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        } while (std::chrono::steady_clock::now() < deadline);
        return false;
    }

private:
    unsigned previousMask_;
    mutable std::mutex mutex_;
    std::vector<std::pair<unsigned, std::string>> lines_;
};

}  // namespace ndtest
