// TCP link benchmark: the library's network device against a plain blocking
// socket, both talking to the same echo peer on 127.0.0.1.
//
// Prints the round-trip time of 16-byte messages (p50, p99), the throughput
// of a 16 MiB echoed transfer, and the latency of KM_IO_Close(h, 1).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kmio/kmio.h"
#include "percentiles.h"
#include "received_bytes.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kMessage = 16;
constexpr int kRoundTrips = 5000;
constexpr int kWarmUp = 500;
constexpr std::size_t kBulk = 16u << 20;
constexpr int kTransfers = 5;
constexpr int kCloses = 50;

double micros(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The device: accepts one connection after another and echoes every byte.
class EchoPeer {
public:
    EchoPeer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = loopback(0);
        socklen_t size = sizeof address;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::listen(listener_, 64) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            fail("echo peer");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { run(); });
    }
    ~EchoPeer() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    std::uint16_t port() const { return port_; }

private:
    // One thread per connection, so that the plain client and the library
    // can be served side by side.
    void run() {
        std::vector<std::thread> connections;
        for (int client; (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            connections.emplace_back([client] { echo(client); });
        }
        for (std::thread& connection : connections) {
            connection.join();
        }
    }
    static void echo(int client) {
        std::vector<char> buffer(1 << 16);
        for (ssize_t n; (n = ::recv(client, buffer.data(), buffer.size(), 0)) > 0;) {
            for (ssize_t done = 0, sent = 0; done < n && sent >= 0; done += sent) {
                sent = ::send(client, buffer.data() + done, n - done, MSG_NOSIGNAL);
            }
        }
        ::close(client);
    }

    int listener_;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

// When the last block reached the application, in steady-clock ticks.
std::atomic<Clock::rep> g_deliveredAt{0};
ReceivedBytes g_received;

void onReceive(void*, const std::uint8_t*, std::size_t length) {
    g_deliveredAt.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    g_received.add(length);
}

std::uint32_t openDevice(std::uint16_t port) {
    std::uint32_t handle = 0;
    const std::string locator = "network:127.0.0.1:" + std::to_string(port);
    if (KM_IO_Open(&handle, locator.c_str(), nullptr, nullptr, &onReceive, nullptr) != KM_IO_OK) {
        std::fprintf(stderr, "KM_IO_Open %s failed\n", locator.c_str());
        std::exit(1);
    }
    return handle;
}

int plainConnect(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("connect");
    }
    return fd;
}

void sendAll(int fd, const std::uint8_t* data, std::size_t length) {
    for (std::size_t done = 0; done < length;) {
        const ssize_t n = ::send(fd, data + done, length - done, MSG_NOSIGNAL);
        if (n <= 0) {
            fail("send");
        }
        done += static_cast<std::size_t>(n);
    }
}

void receiveAll(int fd, std::uint8_t* data, std::size_t length, std::size_t chunk) {
    for (std::size_t done = 0; done < length;) {
        const ssize_t n = ::recv(fd, data + done, std::min(chunk, length - done), 0);
        if (n <= 0) {
            fail("recv");
        }
        done += static_cast<std::size_t>(n);
    }
}

struct RoundTrips {
    Percentiles plain;      // plain socket: send, then recv() returns the echo
    Percentiles delivered;  // library: until onReceive has the echo
    Percentiles returned;   // library: until the sending thread, woken by onReceive, has it
};

struct Clients {
    int fd;
    std::uint32_t handle;
    std::uint8_t message[kMessage];

    double plainExchange() {
        const auto start = Clock::now();
        sendAll(fd, message, kMessage);
        receiveAll(fd, message, kMessage, kMessage);
        return micros(Clock::now() - start);
    }
    // Returns the time until onReceive ran and until this thread had the echo.
    std::pair<double, double> libraryExchange() {
        const std::uint64_t target = g_received.expectMore(kMessage);
        const auto start = Clock::now();
        KM_IO_Send(handle, message, kMessage);
        g_received.await(target);
        const auto end = Clock::now();
        const Clock::time_point at{Clock::duration{g_deliveredAt.load(std::memory_order_relaxed)}};
        return {micros(at - start), micros(end - start)};
    }
};

// alternate false: all plain exchanges, then all library exchanges. true:
// the two take turns message by message, so that both meet the same state of
// the machine (on a virtual machine, whether the CPUs have gone idle between
// messages decides much of a round trip's time).
RoundTrips roundTrips(Clients& clients, bool alternate) {
    std::vector<double> plain, delivered, returned;
    const auto library = [&](int i) {
        const auto [at, end] = clients.libraryExchange();
        if (i >= kWarmUp) {
            delivered.push_back(at);
            returned.push_back(end);
        }
    };
    for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
        const double t = clients.plainExchange();
        if (i >= kWarmUp) {
            plain.push_back(t);
        }
        if (alternate) {
            library(i);
        }
    }
    for (int i = 0; !alternate && i < kWarmUp + kRoundTrips; ++i) {
        library(i);
    }
    return {percentiles(plain), percentiles(delivered), percentiles(returned)};
}

void printRoundTrips(const char* title, const RoundTrips& rtt) {
    std::printf("round trip, %zu-byte messages, %d samples, %s (us):\n", kMessage, kRoundTrips, title);
    std::printf("  plain blocking socket            p50 %8.1f  p99 %8.1f\n", rtt.plain.p50, rtt.plain.p99);
    std::printf(
        "  kmio, delivered to onReceive     p50 %8.1f  p99 %8.1f   p50 ratio %.2f (target <= 1.15: %s)\n",
        rtt.delivered.p50, rtt.delivered.p99, rtt.delivered.p50 / rtt.plain.p50,
        rtt.delivered.p50 <= 1.15 * rtt.plain.p50 ? "met" : "MISSED");
    std::printf("  kmio, back on the sending thread p50 %8.1f  p99 %8.1f   p50 ratio %.2f\n",
                rtt.returned.p50, rtt.returned.p99, rtt.returned.p50 / rtt.plain.p50);
}

// MiB/s for kBulk bytes sent and echoed back in full.
double libraryThroughput(std::uint16_t port, const std::vector<std::uint8_t>& data) {
    const std::uint32_t handle = openDevice(port);
    const std::uint64_t target = g_received.expectMore(data.size());
    const auto start = Clock::now();
    if (KM_IO_Send(handle, data.data(), data.size()) != KM_IO_OK) {
        fail("KM_IO_Send");
    }
    g_received.await(target);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    KM_IO_Close(handle, 1);
    return static_cast<double>(data.size()) / (1 << 20) / seconds;
}

// The same transfer over a plain socket: one thread sends while this one
// receives, with chunk bytes per receive call.
double plainThroughput(std::uint16_t port, const std::vector<std::uint8_t>& data, std::size_t chunk) {
    const int fd = plainConnect(port);
    std::vector<std::uint8_t> echoed(data.size());
    const auto start = Clock::now();
    std::thread sender([&] { sendAll(fd, data.data(), data.size()); });
    receiveAll(fd, echoed.data(), echoed.size(), chunk);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sender.join();
    ::close(fd);
    if (echoed != data) {
        std::fprintf(stderr, "plain transfer corrupted\n");
        std::exit(1);
    }
    return static_cast<double>(data.size()) / (1 << 20) / seconds;
}

Percentiles closeLatency(std::uint16_t port) {
    std::vector<double> samples;
    for (int i = 0; i < kCloses; ++i) {
        const std::uint32_t handle = openDevice(port);
        const auto start = Clock::now();
        KM_IO_Close(handle, 1);
        samples.push_back(micros(Clock::now() - start) / 1000.0);
    }
    return percentiles(samples);
}

const char* verdict(bool met) {
    return met ? "met" : "MISSED";
}

}  // namespace

int main() {
    EchoPeer peer;
    std::vector<std::uint8_t> data(kBulk);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i * 131 + (i >> 12));
    }

    Clients clients{plainConnect(peer.port()), openDevice(peer.port()), {}};
    printRoundTrips("each client alone", roundTrips(clients, false));
    printRoundTrips("clients alternating", roundTrips(clients, true));
    KM_IO_Close(clients.handle, 1);
    ::close(clients.fd);

    // Transfers alternate too; the median of each kind is reported.
    std::vector<double> plainRuns, plainSmallRuns, libRuns;
    for (int i = 0; i < kTransfers; ++i) {
        plainRuns.push_back(plainThroughput(peer.port(), data, 1 << 16));
        plainSmallRuns.push_back(plainThroughput(peer.port(), data, 1024));
        libRuns.push_back(libraryThroughput(peer.port(), data));
    }
    const double plainMiBs = percentiles(plainRuns).p50;
    const double plainSmallMiBs = percentiles(plainSmallRuns).p50;
    const double libMiBs = percentiles(libRuns).p50;
    const Percentiles close = closeLatency(peer.port());

    std::printf("throughput, %zu MiB echoed, median of %d (MiB/s):\n", kBulk >> 20, kTransfers);
    std::printf("  plain socket, 64 KiB receives  %8.1f\n", plainMiBs);
    std::printf("  plain socket, 1 KiB receives   %8.1f\n", plainSmallMiBs);
    std::printf("  kmio                           %8.1f   ratio to 64 KiB plain %.2f (target >= 0.8: %s)\n",
                libMiBs, libMiBs / plainMiBs, verdict(libMiBs >= 0.8 * plainMiBs));
    std::printf("KM_IO_Close(h, 1), %d opens (ms): p50 %.3f  max %.3f (target < 5: %s)\n", kCloses, close.p50,
                close.max, verdict(close.max < 5.0));
    return 0;
}
