#pragma once

// Helpers shared by the discovery tests: plain UDP sockets that play the
// device side without any of the code under test, datagrams written out by
// hand from the layout table, and a log sink that collects lines.

#include <algorithm>
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
#include "support/checks.h"
#include "support/socket_calls.h"

namespace kmiotest {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using TokenBytes = std::array<std::uint8_t, 16>;

constexpr std::uint32_t kLoopback = 0x7F000001;           // 127.0.0.1
constexpr std::uint32_t kLoopbackBroadcast = 0x7FFFFFFF;  // 127.255.255.255
constexpr std::uint32_t kGroup = 0xEF010115;              // 239.1.1.21

// A datagram header written byte by byte from the layout table.
inline Bytes handHeader(std::uint16_t total, std::uint8_t opcode, std::uint32_t version,
                        std::uint32_t selector, const std::string& serial, const TokenBytes& token) {
    Bytes b = {0xC2, static_cast<std::uint8_t>(total - 3), static_cast<std::uint8_t>((total - 3) >> 8),
               opcode};
    b.insert(b.end(), {'P', 'D', 'N', 'K'});
    for (const std::uint32_t v : {version, selector}) {
        for (int i = 0; i < 4; ++i) {
            b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        }
    }
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
    // Bound to address:port with SO_REUSEADDR (port 0: any port). Multicasts
    // leave through loopback; bound to the group, the socket joins it on
    // loopback alone and, where the system can, ignores every other
    // membership on the machine.
    UdpSocket(std::uint32_t address, std::uint16_t port) : socket_(openSocket(SOCK_DGRAM)) {
        const int one = 1;
        setOption(socket_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        setOption(socket_, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
#if defined(IP_MULTICAST_ALL)
        const int zero = 0;
        setOption(socket_, IPPROTO_IP, IP_MULTICAST_ALL, &zero, sizeof zero);
#endif
        in_addr loopback{};
        loopback.s_addr = htonl(kLoopback);
        setOption(socket_, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback);
        const bool shared = address == kGroup || address == kLoopbackBroadcast;
        ip_mreq group{};
        group.imr_multiaddr.s_addr = htonl(kGroup);
        group.imr_interface = loopback;
        if (!bindTo(socket_, shared && !kBindsBroadcastAddresses ? std::uint32_t{0} : address, port) ||
            (address == kGroup && !setOption(socket_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group))) {
            throw std::runtime_error("UDP socket setup");
        }
    }

    void sendTo(std::uint32_t address, std::uint16_t port, const Bytes& bytes) const {
        if (!sendDatagram(socket_, address, port, bytes.data(), bytes.size())) {
            throw std::runtime_error("sendto");
        }
    }

    // The first datagram within the limit that is the wanted one, skipping
    // others (the ports are shared with anything else that speaks the protocol).
    std::optional<Datagram> receive(const std::function<bool(const Datagram&)>& wanted = {},
                                    std::chrono::milliseconds limit = 5s) const {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (auto now = std::chrono::steady_clock::now(); now < deadline;
             now = std::chrono::steady_clock::now()) {
            if (!waitReadable(socket_, std::chrono::ceil<std::chrono::milliseconds>(deadline - now))) {
                continue;
            }
            Datagram d{Bytes(65536)};
            const auto n = receiveDatagram(socket_, d.bytes.data(), d.bytes.size(), d.source, d.sourcePort);
            d.bytes.resize(static_cast<std::size_t>(std::max<std::ptrdiff_t>(n, 0)));
            if (n >= 0 && (!wanted || wanted(d))) {
                return d;
            }
        }
        return std::nullopt;
    }

private:
    kmio::Socket socket_;
};

// Device side of the tests, on plain sockets: answers every Discover Request
// that reaches 127.255.255.255:65111 by unicast to its source, announcing
// protocol 42, available, the TCP port and the info text.
class Responder {
public:
    explicit Responder(std::string serial = "nd-responder", std::uint16_t port = 55550,
                       std::string info = "sim")
        : serial_(std::move(serial)),
          payload_{42, 1, static_cast<std::uint8_t>(port), static_cast<std::uint8_t>(port >> 8),
                   static_cast<std::uint8_t>(info.size())},
          listener_(kLoopbackBroadcast, 65111),
          sender_(kLoopback, 0) {
        payload_.insert(payload_.end(), info.begin(), info.end());
        payload_.push_back(0);
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
    // A Discover Inform by directed broadcast, as a device sends when it starts.
    void announce() const {
        sender_.sendTo(kLoopbackBroadcast, 65111, handDatagram(0xA2, 1, 7, serial_, {}, payload_));
    }

private:
    void run() {
        while (!stop_) {
            auto d = listener_.receive({}, 100ms);
            if (!d || silent_ || d->bytes.size() < 96 || d->bytes[3] != 0x21 || d->bytes[4] != 'P') {
                continue;
            }
            {
                const std::lock_guard lock(mutex_);
                lastRequest_ = d->bytes;
            }
            TokenBytes token;
            std::copy(d->bytes.begin() + 80, d->bytes.begin() + 96, token.begin());
            sender_.sendTo(d->source, d->sourcePort, handDatagram(0xA1, 1, 7, serial_, token, payload_));
        }
    }

    std::string serial_;
    Bytes payload_;
    UdpSocket listener_;
    UdpSocket sender_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> silent_{false};
    std::mutex mutex_;
    Bytes lastRequest_;
    std::thread thread_;
};

// A list that several threads append to.
template <typename T>
class Collected {
public:
    void add(T item) {
        const std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
    }
    std::vector<T> all() const {
        const std::lock_guard lock(mutex_);
        return items_;
    }
    std::vector<T> take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(items_, {});
    }

private:
    mutable std::mutex mutex_;
    std::vector<T> items_;
};

// Collects the discovery log's lines (level, text) while it lives, with the levels of the mask enabled.
class LogCapture : public Collected<std::pair<unsigned, std::string>> {
public:
    explicit LogCapture(unsigned mask = 7) : previousMask_(kalometnd::logMask()) {
        kalometnd::setLogMask(mask);
        kalometnd::setLogSink([this](unsigned level, const std::string& line) { add({level, line}); });
    }
    ~LogCapture() {
        kalometnd::setLogSink({});
        kalometnd::setLogMask(previousMask_);
    }
    // True once a line of the level begins with prefix (waits up to 10 s).
    bool waitFor(unsigned level, const std::string& prefix) const {
        return eventually([&] {
            return std::ranges::any_of(
                all(), [&](auto& l) { return l.first == level && l.second.starts_with(prefix); });
        });
    }

private:
    unsigned previousMask_;
};

}  // namespace kmiotest
