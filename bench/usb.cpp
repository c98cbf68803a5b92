// USB link benchmark against the simulated FTDI driver (tools/ftdi-sim): the
// library's USB device against plain loops that call the same simulated
// driver directly, in one run.
//
// Prints the throughput of 64 MiB received and 64 MiB sent, the round trip of
// 16-byte messages (p50, p99), and the time to enumerate 32 simulated chips
// that each answer the protocol-id probe at once.
//
// The simulator is loaded from its build folder before the library needs it;
// the library's dlopen("libftd2xx.so") then finds that loaded copy by its
// SONAME, so no LD_LIBRARY_PATH is needed.
#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "../tests/support/ftdi_sim_control.h"
#include "kmio/kmio.h"
#include "percentiles.h"
#include "received_bytes.h"

namespace {

using Clock = std::chrono::steady_clock;
using kmio::d2xx::FT_HANDLE;
using kmiotest::FtdiSimControl;
using kmiotest::FtdiSimDriver;

constexpr std::uint64_t kBulk = 64u << 20;
constexpr std::uint32_t kSendBlock = 64u << 10;
constexpr std::size_t kMessage = 16;
constexpr int kRoundTrips = 5000;
constexpr int kWarmUp = 500;
constexpr int kTransfers = 5;
// A send run lasts only some milliseconds: more of them steady the median.
constexpr int kSendRuns = 15;
constexpr int kEnumChips = 32;
constexpr int kEnumerations = 20;
const char* const kSerial = "KMBENCH01";
const std::string kLocator = std::string("usb:sn:") + kSerial;

double micros(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}
double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}
double mibPerSecond(std::uint64_t bytes, Clock::duration d) {
    return static_cast<double>(bytes) / (1 << 20) / seconds(d);
}
const char* verdict(bool met) {
    return met ? "met" : "MISSED";
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

ReceivedBytes g_received;

void onReceive(void*, const std::uint8_t*, std::size_t length) {
    g_received.add(length);
}

// The library's handle of the benchmark chip, or nothing with the reason
// printed when the library cannot open it.
std::optional<std::uint32_t> openLibrary() {
    std::uint32_t handle = 0;
    const std::uint32_t result = KM_IO_Open(&handle, kLocator.c_str(), nullptr, nullptr, &onReceive, nullptr);
    if (result != KM_IO_OK) {
        std::printf(
            "  kmio: KM_IO_Open(\"%s\") gave %u; the library's USB link is not available, no figures\n",
            kLocator.c_str(), result);
        return 0;
    }
    return handle;
}

// A handle of the benchmark chip opened directly through the driver.
class DirectChip {
public:
    explicit DirectChip(const FtdiSimDriver& ft) : ft_(ft) {
        if (const auto status =
                ft_.FT_OpenEx(const_cast<char*>(kSerial), kmio::d2xx::kOpenBySerialNumber, &handle_);
            status != 0 || ft_.FT_SetTimeouts(handle_, 1000, 1000) != 0) {
            fail("direct FT_OpenEx gave " + std::to_string(status));
        }
    }
    ~DirectChip() { ft_.FT_Close(handle_); }
    DirectChip(const DirectChip&) = delete;
    DirectChip& operator=(const DirectChip&) = delete;
    FT_HANDLE get() const { return handle_; }

private:
    const FtdiSimDriver& ft_;
    FT_HANDLE handle_ = nullptr;
};

std::uint32_t queued(const FtdiSimDriver& ft, FT_HANDLE chip) {
    std::uint32_t rx = 0, tx = 0, events = 0;
    if (ft.FT_GetStatus(chip, &rx, &tx, &events) != 0) {
        fail("FT_GetStatus failed");
    }
    return rx;
}

void writeAll(const FtdiSimDriver& ft, FT_HANDLE chip, const std::uint8_t* data, std::uint32_t length) {
    std::uint32_t written = 0;
    if (ft.FT_Write(chip, const_cast<std::uint8_t*>(data), length, &written) != 0 || written != length) {
        fail("FT_Write failed");
    }
}

// Reads of at most `chunk` bytes of what FT_GetStatus reports, until `total` arrived.
Clock::duration directReceive(const FtdiSimControl& sim, std::uint32_t chunk) {
    const FtdiSimDriver& ft = sim.driver();
    DirectChip chip(ft);
    std::vector<std::uint8_t> buffer(chunk);
    const auto start = Clock::now();
    sim.stream(kSerial, kBulk);
    for (std::uint64_t total = 0; total < kBulk;) {
        const std::uint32_t want = std::min(queued(ft, chip.get()), chunk);
        std::uint32_t got = 0;
        if (want > 0 && ft.FT_Read(chip.get(), buffer.data(), want, &got) != 0) {
            fail("FT_Read failed");
        }
        total += got;
    }
    return Clock::now() - start;
}

// Zero when the library cannot open the chip.
Clock::duration libraryReceive(const FtdiSimControl& sim) {
    const auto handle = openLibrary();
    if (!handle) {
        return {};
    }
    const std::uint64_t target = g_received.expectMore(kBulk);
    const auto start = Clock::now();
    sim.stream(kSerial, kBulk);
    g_received.await(target);
    const auto elapsed = Clock::now() - start;
    KM_IO_Close(*handle, 1);
    return elapsed;
}

void checkWritten(const FtdiSimControl& sim, const char* who) {
    if (const std::size_t n = sim.takeWritten(kSerial).size(); n != kBulk) {
        fail(std::string(who) + ": the chip got " + std::to_string(n) + " bytes");
    }
}

Clock::duration directSend(const FtdiSimControl& sim, const std::vector<std::uint8_t>& block) {
    const FtdiSimDriver& ft = sim.driver();
    DirectChip chip(ft);
    const auto start = Clock::now();
    for (std::uint64_t sent = 0; sent < kBulk; sent += block.size()) {
        writeAll(ft, chip.get(), block.data(), static_cast<std::uint32_t>(block.size()));
    }
    const auto elapsed = Clock::now() - start;
    checkWritten(sim, "direct send");
    return elapsed;
}

Clock::duration librarySend(const FtdiSimControl& sim, const std::vector<std::uint8_t>& block) {
    const auto handle = openLibrary();
    if (!handle) {
        return {};
    }
    const auto start = Clock::now();
    for (std::uint64_t sent = 0; sent < kBulk; sent += block.size()) {
        if (const std::uint32_t result = KM_IO_Send(*handle, block.data(), block.size());
            result != KM_IO_OK) {
            fail("KM_IO_Send gave " + std::to_string(result));
        }
    }
    const auto elapsed = Clock::now() - start;
    KM_IO_Close(*handle, 1);
    checkWritten(sim, "library send");
    return elapsed;
}

double medianMiBs(const std::vector<Clock::duration>& runs) {
    std::vector<double> rates;
    for (const auto& run : runs) {
        rates.push_back(run.count() > 0 ? mibPerSecond(kBulk, run) : 0.0);
    }
    return percentiles(rates).p50;
}

struct Rate {
    const char* label;
    double mibs;
};

// The library against the first direct loop (the target) and the others.
void printThroughput(const char* direction, int runs, const std::vector<Rate>& direct, double library) {
    std::printf("throughput, %llu MiB %s, median of %d (MiB/s):\n",
                static_cast<unsigned long long>(kBulk >> 20), direction, runs);
    for (const Rate& rate : direct) {
        std::printf("  direct, %-28s %8.1f\n", rate.label, rate.mibs);
    }
    if (library > 0) {
        std::printf("  kmio                                 %8.1f   ratio %.2f (target >= 0.9: %s)", library,
                    library / direct[0].mibs, verdict(library >= 0.9 * direct[0].mibs));
        for (std::size_t i = 1; i < direct.size(); ++i) {
            std::printf(", to %s %.2f", direct[i].label, library / direct[i].mibs);
        }
        std::printf("\n");
    }
}

// A receive event set up as a Linux program does, and a reader thread that
// waits on it, reads what arrived and wakes the benchmark thread: the
// hand-off between threads that the library makes too.
class EventReader {
public:
    EventReader(const FtdiSimDriver& ft, FT_HANDLE chip) : ft_(ft), chip_(chip) {
        pthread_mutex_init(&event_.eMutex, nullptr);
        pthread_cond_init(&event_.eCondVar, nullptr);
        if (ft_.FT_SetEventNotification(chip_, kmio::d2xx::kEventRxChar, &event_) != 0) {
            fail("FT_SetEventNotification failed");
        }
        thread_ = std::thread([this] { run(); });
    }
    ~EventReader() {
        pthread_mutex_lock(&event_.eMutex);
        stop_ = true;
        pthread_cond_signal(&event_.eCondVar);
        pthread_mutex_unlock(&event_.eMutex);
        thread_.join();
        ft_.FT_SetEventNotification(chip_, 0, nullptr);
        pthread_cond_destroy(&event_.eCondVar);
        pthread_mutex_destroy(&event_.eMutex);
    }
    EventReader(const EventReader&) = delete;
    EventReader& operator=(const EventReader&) = delete;

private:
    void run() {
        std::vector<std::uint8_t> buffer(1024);
        for (;;) {
            pthread_mutex_lock(&event_.eMutex);
            while (!stop_ && queued(ft_, chip_) == 0) {
                timespec deadline{};
                clock_gettime(CLOCK_REALTIME, &deadline);
                deadline.tv_sec += 1;
                pthread_cond_timedwait(&event_.eCondVar, &event_.eMutex, &deadline);
            }
            const bool stop = stop_;
            pthread_mutex_unlock(&event_.eMutex);
            if (stop) {
                return;
            }
            for (std::uint32_t n; (n = std::min<std::uint32_t>(queued(ft_, chip_), 1024)) > 0;) {
                std::uint32_t got = 0;
                if (ft_.FT_Read(chip_, buffer.data(), n, &got) != 0) {
                    fail("FT_Read failed");
                }
                onReceive(nullptr, buffer.data(), got);
            }
        }
    }

    const FtdiSimDriver& ft_;
    FT_HANDLE chip_;
    kmio::d2xx::EVENT_HANDLE event_{};
    bool stop_ = false;  // guarded by event_.eMutex
    std::thread thread_;
};

struct RoundTrips {
    Percentiles sameThread;   // FT_Write, then FT_Read on the same thread
    Percentiles eventReader;  // FT_Write; a reader thread woken by the event hands the echo over
    Percentiles library;      // KM_IO_Send; onReceive hands the echo over
    bool haveLibrary;
};

RoundTrips roundTrips(const FtdiSimControl& sim) {
    const FtdiSimDriver& ft = sim.driver();
    std::uint8_t message[kMessage] = {};
    std::vector<double> sameThread, eventReader, library;
    {
        DirectChip chip(ft);
        for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
            const auto start = Clock::now();
            writeAll(ft, chip.get(), message, kMessage);
            std::uint32_t got = 0;
            if (ft.FT_Read(chip.get(), message, kMessage, &got) != 0 || got != kMessage) {
                fail("direct echo failed");
            }
            if (i >= kWarmUp) {
                sameThread.push_back(micros(Clock::now() - start));
            }
        }
        EventReader reader(ft, chip.get());
        for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
            const std::uint64_t target = g_received.expectMore(kMessage);
            const auto start = Clock::now();
            writeAll(ft, chip.get(), message, kMessage);
            g_received.await(target);
            if (i >= kWarmUp) {
                eventReader.push_back(micros(Clock::now() - start));
            }
        }
    }
    if (const auto handle = openLibrary()) {
        for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
            const std::uint64_t target = g_received.expectMore(kMessage);
            const auto start = Clock::now();
            if (KM_IO_Send(*handle, message, kMessage) != KM_IO_OK) {
                fail("KM_IO_Send failed");
            }
            g_received.await(target);
            if (i >= kWarmUp) {
                library.push_back(micros(Clock::now() - start));
            }
        }
        KM_IO_Close(*handle, 1);
    }
    const bool haveLibrary = !library.empty();
    return {percentiles(sameThread), percentiles(eventReader),
            haveLibrary ? percentiles(library) : Percentiles{}, haveLibrary};
}

void printRoundTrips(const RoundTrips& rtt) {
    std::printf("round trip, %zu-byte messages echoed, %d samples (us):\n", kMessage, kRoundTrips);
    std::printf("  direct, same thread              p50 %8.1f  p99 %8.1f\n", rtt.sameThread.p50,
                rtt.sameThread.p99);
    std::printf("  direct, reader thread on event   p50 %8.1f  p99 %8.1f\n", rtt.eventReader.p50,
                rtt.eventReader.p99);
    if (rtt.haveLibrary) {
        std::printf(
            "  kmio, until onReceive's hand-off p50 %8.1f  p99 %8.1f   p50 ratio to the event reader "
            "%.2f (target <= 1.2: %s), to the same thread %.2f\n",
            rtt.library.p50, rtt.library.p99, rtt.library.p50 / rtt.eventReader.p50,
            verdict(rtt.library.p50 <= 1.2 * rtt.eventReader.p50), rtt.library.p50 / rtt.sameThread.p50);
    }
}

// Enumerates 32 chips that answer the probe at once; the median and the
// slowest of kEnumerations runs, each a fresh scan.
void enumeration(const FtdiSimControl& sim) {
    sim.reset();
    for (int i = 0; i < kEnumChips; ++i) {
        char line[160];
        std::snprintf(line, sizeof line,
                      "serial=KMENUM%02d description=\"Kalomet Sensor\" ua=KMIO\\x01 protocols=146 chipid=%d",
                      i, 1000 + i);
        if (!sim.addChip(line)) {
            fail("bad chip line");
        }
    }
    std::vector<char> buffer(1 << 20);
    std::vector<double> samples;
    std::size_t records = 0;
    for (int i = 0; i < kEnumerations; ++i) {
        std::size_t size = buffer.size();
        const auto start = Clock::now();
        const std::uint32_t result = KM_IO_EnumerateDevices(
            KM_IO_IFACE_ALL, "iface-type usb\nforce-rescan\ninclude-all", buffer.data(), &size);
        samples.push_back(micros(Clock::now() - start) / 1000.0);
        if (result != KM_IO_OK) {
            std::printf("enumeration: KM_IO_EnumerateDevices gave %u\n", result);
            return;
        }
        const std::string text(buffer.data(), size);
        records = 0;
        for (std::size_t at = 0; (at = text.find("protocol-id", at)) != std::string::npos; ++at) {
            ++records;
        }
    }
    const Percentiles p = percentiles(samples);
    std::printf(
        "enumeration of %d chips with probes, force-rescan, %d runs (ms): p50 %.2f  max %.2f  "
        "(target < 50: %s); records with a protocol id: %zu\n",
        kEnumChips, kEnumerations, p.p50, p.max, verdict(p.max < 50.0), records);
    if (records != static_cast<std::size_t>(kEnumChips)) {
        std::printf("  (expected %d: not every probe succeeded)\n", kEnumChips);
    }
}

}  // namespace

int main() {
    if (::dlopen(KMIO_FTDI_SIM_PATH, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        fail(std::string("cannot load the simulator: ") + ::dlerror());
    }
    const FtdiSimControl sim;
    sim.reset();
    if (!sim.addChip(std::string("serial=") + kSerial +
                     " description=\"Kalomet DRV-I\" ua=KMIO\\x01 echo=0")) {
        fail("bad chip line");
    }

    // The library reads at most 1024 bytes per FT_Read: the direct loop that
    // does the same is the reference.
    std::vector<Clock::duration> direct1k, direct64k, library;
    for (int i = 0; i < kTransfers; ++i) {
        if (i % 2 == 0) {
            direct1k.push_back(directReceive(sim, 1024));
            direct64k.push_back(directReceive(sim, 64 * 1024));
            library.push_back(libraryReceive(sim));
        } else {
            library.push_back(libraryReceive(sim));
            direct64k.push_back(directReceive(sim, 64 * 1024));
            direct1k.push_back(directReceive(sim, 1024));
        }
    }
    printThroughput("received", kTransfers,
                    {{"1 KiB reads", medianMiBs(direct1k)}, {"reads of up to 64 KiB", medianMiBs(direct64k)}},
                    medianMiBs(library));

    // Both sides write the same 64 KiB blocks.
    std::vector<std::uint8_t> block(kSendBlock);
    for (std::size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<std::uint8_t>(i * 131);
    }
    // The chip keeps what it is sent until the run is checked: one untimed
    // run first grows its buffer, and the two sides take turns going first.
    directSend(sim, block);
    std::vector<Clock::duration> directSends, librarySends;
    for (int i = 0; i < kSendRuns; ++i) {
        if (i % 2 == 0) {
            directSends.push_back(directSend(sim, block));
            librarySends.push_back(librarySend(sim, block));
        } else {
            librarySends.push_back(librarySend(sim, block));
            directSends.push_back(directSend(sim, block));
        }
    }
    printThroughput("sent in 64 KiB blocks", kSendRuns, {{"64 KiB writes", medianMiBs(directSends)}},
                    medianMiBs(librarySends));

    sim.setEcho(kSerial, true);
    printRoundTrips(roundTrips(sim));
    enumeration(sim);
    sim.reset();
    return 0;
}
