// Serial link over a pseudo-terminal pair: round-trip time of 16-byte
// messages (the master echoes) and throughput of a 4 MiB transfer in each
// direction, through the library, through a plain termios read/write loop on
// the same pair, and through libserialport as a peer.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kmio/kmio.h"
#ifdef KMIO_HAVE_LIBSERIALPORT
#include <libserialport.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWarmUp = 200;
constexpr int kRounds = 1000;
// The machine is shared, so each method runs several times, interleaved,
// and the median of each figure is reported.
constexpr int kRepeats = 9;
constexpr std::size_t kMessage = 16;
constexpr std::size_t kBulk = 4u << 20;

double microseconds(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

void writeAll(int fd, const std::uint8_t* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else {
            pollfd p{fd, POLLOUT, 0};
            ::poll(&p, 1, 100);
        }
    }
}

// Reads until count bytes arrived (or the descriptor fails).
void readCount(int fd, std::size_t count, std::size_t chunk = 4096) {
    std::vector<std::uint8_t> buffer(chunk);
    std::size_t got = 0;
    while (got < count) {
        pollfd p{fd, POLLIN, 0};
        ::poll(&p, 1, 1000);
        const ssize_t n = ::read(fd, buffer.data(), std::min(chunk, count - got));
        if (n > 0) {
            got += static_cast<std::size_t>(n);
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            return;
        }
    }
}

// The master side: echoes everything back, or (when told) only drains or feeds.
class Master {
public:
    Master() {
        int m = -1;
        int s = -1;
        char name[128] = {};
        if (::openpty(&m, &s, name, nullptr, nullptr) != 0) {
            std::perror("openpty");
            std::exit(1);
        }
        ::close(s);
        fd_ = m;
        path_ = name;
        termios raw{};
        ::tcgetattr(fd_, &raw);
        ::cfmakeraw(&raw);
        ::tcsetattr(fd_, TCSANOW, &raw);
    }
    ~Master() { ::close(fd_); }
    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

    // Runs an echo loop until the returned stopper is called.
    std::function<void()> echo() {
        auto stop = std::make_shared<std::atomic<bool>>(false);
        auto thread = std::make_shared<std::thread>([this, stop] {
            std::uint8_t buffer[4096];
            while (!*stop) {
                pollfd p{fd_, POLLIN, 0};
                if (::poll(&p, 1, 20) > 0) {
                    const ssize_t n = ::read(fd_, buffer, sizeof buffer);
                    if (n > 0) {
                        writeAll(fd_, buffer, static_cast<std::size_t>(n));
                    }
                }
            }
        });
        return [stop, thread] {
            *stop = true;
            thread->join();
        };
    }

private:
    int fd_ = -1;
    std::string path_;
};

struct RoundTrips {
    double p50 = 0;
    double p99 = 0;
};

RoundTrips measure(const std::function<void()>& roundTrip) {
    for (int i = 0; i < kWarmUp; ++i) {
        roundTrip();
    }
    std::vector<double> samples(kRounds);
    for (auto& s : samples) {
        const auto start = Clock::now();
        roundTrip();
        s = microseconds(Clock::now() - start);
    }
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[samples.size() * 99 / 100]};
}

// Bytes per second of a transfer whose end is detected by done().
double throughput(const std::function<void()>& start, const std::function<void()>& finish) {
    const auto begin = Clock::now();
    start();
    finish();
    return kBulk / std::chrono::duration<double>(Clock::now() - begin).count();
}

struct Figures {
    const char* name;
    RoundTrips rtt;
    double tx = 0;  // port to master
    double rx = 0;  // master to port
};

const std::vector<std::uint8_t>& bulk() {
    static const std::vector<std::uint8_t> data(kBulk, 0x55);
    return data;
}

// ---- the library ----------------------------------------------------------

// Counts received bytes. The callback only adds, and wakes the waiting
// thread once the count it waits for has arrived, as an application that
// hands data to another thread would.
struct Counter {
    std::atomic<std::size_t> bytes{0};
    std::atomic<std::size_t> target{SIZE_MAX};
    std::atomic<bool> reached{false};
    static void onReceive(void* context, const std::uint8_t*, std::size_t length) {
        auto* c = static_cast<Counter*>(context);
        if (c->bytes.fetch_add(length) + length >= c->target.load() && !c->reached.exchange(true)) {
            c->reached.notify_one();
        }
    }
    // Called before the bytes are asked for.
    void expect(std::size_t count) {
        bytes = 0;
        reached = false;
        target = count;
    }
    void wait() { reached.wait(false); }
};

Figures runLibrary(Master& master) {
    Figures f{"kmio", {}, 0, 0};
    Counter counter;
    std::uint32_t handle = 0;
    const std::string locator = "serial:" + master.path();
    if (KM_IO_Open(&handle, locator.c_str(), "baudrate 115200", &counter, &Counter::onReceive, nullptr) !=
        KM_IO_OK) {
        std::fprintf(stderr, "KM_IO_Open failed\n");
        return f;
    }
    const std::uint8_t message[kMessage] = {1, 2, 3};
    {
        auto stopEcho = master.echo();
        f.rtt = measure([&] {
            counter.expect(kMessage);
            KM_IO_Send(handle, message, kMessage);
            counter.wait();
        });
        stopEcho();
    }
    std::thread drain;
    f.tx = throughput(
        [&] {
            drain = std::thread([&] { readCount(master.fd(), kBulk); });
            KM_IO_Send(handle, bulk().data(), kBulk);
        },
        [&] { drain.join(); });
    std::thread feed;
    counter.expect(kBulk);
    f.rx = throughput([&] { feed = std::thread([&] { writeAll(master.fd(), bulk().data(), kBulk); }); },
                      [&] {
                          counter.wait();
                          feed.join();
                      });
    KM_IO_Close(handle, 1);
    return f;
}

// ---- a plain termios loop -------------------------------------------------

Figures runPlain(Master& master) {
    Figures f{"plain termios", {}, 0, 0};
    const int fd = ::open(master.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios raw{};
    ::tcgetattr(fd, &raw);
    ::cfmakeraw(&raw);
    ::cfsetspeed(&raw, B115200);
    raw.c_cflag |= CLOCAL | CREAD;
    ::tcsetattr(fd, TCSANOW, &raw);
    const std::uint8_t message[kMessage] = {1, 2, 3};
    {
        auto stopEcho = master.echo();
        f.rtt = measure([&] {
            writeAll(fd, message, kMessage);
            readCount(fd, kMessage);
        });
        stopEcho();
    }
    std::thread other;
    f.tx = throughput(
        [&] {
            other = std::thread([&] { readCount(master.fd(), kBulk); });
            writeAll(fd, bulk().data(), kBulk);
        },
        [&] { other.join(); });
    f.rx = throughput([&] { other = std::thread([&] { writeAll(master.fd(), bulk().data(), kBulk); }); },
                      [&] {
                          readCount(fd, kBulk);
                          other.join();
                      });
    ::close(fd);
    return f;
}

// ---- libserialport --------------------------------------------------------

#ifdef KMIO_HAVE_LIBSERIALPORT
Figures runLibserialport(Master& master) {
    Figures f{"libserialport", {}, 0, 0};
    sp_port* port = nullptr;
    // libserialport looks the port up in /sys/class/tty and reads the modem
    // lines (TIOCMGET) when it opens; a pseudo-terminal has neither, so on a
    // pty pair it cannot open at all. Say so instead of printing zeros.
    if (sp_get_port_by_name(master.path().c_str(), &port) != SP_OK ||
        sp_open(port, SP_MODE_READ_WRITE) != SP_OK) {
        char* message = sp_last_error_message();
        std::printf("libserialport: cannot open %s (%s); no figures\n", master.path().c_str(), message);
        sp_free_error_message(message);
        sp_free_port(port);
        f.name = nullptr;
        return f;
    }
    sp_set_baudrate(port, 115200);
    sp_set_bits(port, 8);
    sp_set_parity(port, SP_PARITY_NONE);
    sp_set_stopbits(port, 1);
    sp_set_flowcontrol(port, SP_FLOWCONTROL_NONE);
    std::uint8_t message[kMessage] = {1, 2, 3};
    {
        auto stopEcho = master.echo();
        f.rtt = measure([&] {
            sp_blocking_write(port, message, kMessage, 0);
            sp_blocking_read(port, message, kMessage, 0);
        });
        stopEcho();
    }
    std::thread other;
    f.tx = throughput(
        [&] {
            other = std::thread([&] { readCount(master.fd(), kBulk); });
            sp_blocking_write(port, bulk().data(), kBulk, 0);
        },
        [&] { other.join(); });
    f.rx = throughput([&] { other = std::thread([&] { writeAll(master.fd(), bulk().data(), kBulk); }); },
                      [&] {
                          std::vector<std::uint8_t> buffer(4096);
                          for (std::size_t got = 0; got < kBulk;) {
                              const int n = sp_blocking_read_next(port, buffer.data(), buffer.size(), 1000);
                              if (n <= 0) {
                                  break;
                              }
                              got += static_cast<std::size_t>(n);
                          }
                          other.join();
                      });
    sp_close(port);
    sp_free_port(port);
    return f;
}
#endif

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

Figures median(const std::vector<Figures>& runs) {
    const auto pick = [&](auto field) {
        std::vector<double> values;
        for (const auto& r : runs) {
            values.push_back(field(r));
        }
        return medianOf(values);
    };
    Figures m{runs.front().name, {}, 0, 0};
    m.rtt.p50 = pick([](const Figures& f) { return f.rtt.p50; });
    m.rtt.p99 = pick([](const Figures& f) { return f.rtt.p99; });
    m.tx = pick([](const Figures& f) { return f.tx; });
    m.rx = pick([](const Figures& f) { return f.rx; });
    return m;
}

}  // namespace

int main() {
    Master master;
    std::vector<Figures> library;
    std::vector<Figures> plain;
    std::vector<Figures> peer;
    for (int i = 0; i < kRepeats; ++i) {
        library.push_back(runLibrary(master));
        plain.push_back(runPlain(master));
#ifdef KMIO_HAVE_LIBSERIALPORT
        if (peer.empty() || peer.back().name != nullptr) {
            peer.push_back(runLibserialport(master));
        }
#endif
    }
#ifndef KMIO_HAVE_LIBSERIALPORT
    std::printf("libserialport: not built (libserialport-dev missing)\n");
#endif
    std::vector<Figures> all{median(library), median(plain)};
    if (!peer.empty() && peer.back().name != nullptr) {
        all.push_back(median(peer));
    }
    std::printf(
        "serial over a pty pair: median of %d runs, each %d round trips of %zu bytes and %zu MiB each way\n",
        kRepeats, kRounds, kMessage, kBulk >> 20);
    std::printf("%-14s %10s %10s %14s %14s\n", "", "rtt p50 us", "rtt p99 us", "tx MiB/s", "rx MiB/s");
    for (const auto& f : all) {
        std::printf("%-14s %10.1f %10.1f %14.1f %14.1f\n", f.name, f.rtt.p50, f.rtt.p99, f.tx / (1 << 20),
                    f.rx / (1 << 20));
    }
    std::printf("kmio / plain: rtt p50 %.2fx (target <= 1.2x), tx %.2fx, rx %.2fx (target >= 0.8x)\n",
                all[0].rtt.p50 / all[1].rtt.p50, all[0].tx / all[1].tx, all[0].rx / all[1].rx);
    return 0;
}
