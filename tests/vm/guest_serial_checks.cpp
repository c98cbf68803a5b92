// The library's public API against Linux's own ftdi_sio driver, inside the
// QEMU guest (tests/vm/run_guest.py). Each check prints one "@@check" line;
// the exit code is the number of failed checks.
//
// Usage: kmio-guest-serial-checks PORT0 PORT1 SERIAL1
//   PORT0 is echoed through and then unplugged and plugged again; PORT1 is
//   the second chip, whose USB serial number is SERIAL1.

#include <kmio/kmio.h>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

int failures = 0;

// A check's detail goes on its one console line, so line feeds become blanks.
void report(const std::string& name, bool ok, std::string detail = "") {
    for (char& c : detail) {
        c = c == '\n' ? ' ' : c;
    }
    std::printf("@@check %s %s %s\n", name.c_str(), ok ? "ok" : "fail", detail.c_str());
    std::fflush(stdout);
    failures += ok ? 0 : 1;
}

void figure(const std::string& name, double value, const char* unit) {
    std::printf("@@figure %s %.3f %s\n", name.c_str(), value, unit);
    std::fflush(stdout);
}

void askHost(const char* request) {
    std::printf("@@host %s\n", request);
    std::fflush(stdout);
}

// What the callbacks of one open port have seen.
struct Link {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<unsigned char> received;
    int errors = 0;
    std::uint32_t lastError = 0;
    Clock::time_point firstErrorAt;

    template <typename Predicate>
    bool waitFor(std::chrono::milliseconds limit, Predicate done) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, done);
    }
};

void KM_IO_CALL onReceive(void* context, const std::uint8_t* data, std::size_t length) {
    auto* link = static_cast<Link*>(context);
    const std::lock_guard<std::mutex> lock(link->mutex);
    link->received.insert(link->received.end(), data, data + length);
    link->changed.notify_all();
}

void KM_IO_CALL onError(void* context, std::uint32_t code) {
    auto* link = static_cast<Link*>(context);
    const std::lock_guard<std::mutex> lock(link->mutex);
    if (link->errors++ == 0) {
        link->firstErrorAt = Clock::now();
    }
    link->lastError = code;
    link->changed.notify_all();
}

std::uint32_t openPort(std::uint32_t& handle, const std::string& port, unsigned long rate, Link& link) {
    const std::string options = "baudrate " + std::to_string(rate);
    return KM_IO_Open(&handle, ("serial:" + port).c_str(), options.c_str(), &link, onReceive, onError);
}

std::vector<unsigned char> randomBytes(std::size_t size) {
    std::mt19937 random(12345);
    std::vector<unsigned char> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

// Sends 1 MiB through the chip and its echoing host peer and compares what
// comes back.
void echoAtRate(const std::string& port, unsigned long rate) {
    const std::string name = "echo-1MiB-at-" + std::to_string(rate);
    Link link;
    std::uint32_t handle = 0;
    if (const std::uint32_t result = openPort(handle, port, rate, link); result != KM_IO_OK) {
        report(name, false, "open gave " + std::to_string(result));
        return;
    }
    const std::vector<unsigned char> data = randomBytes(1 << 20);
    std::printf("@@note echoing %zu bytes at %lu baud\n", data.size(), rate);
    std::fflush(stdout);
    const auto started = Clock::now();
    // Sends on its own thread: a paced link blocks sends for a long time, and
    // the progress notes below should show it.
    std::atomic<std::uint32_t> sent{KM_IO_OK};
    std::thread sender([&] {
        for (std::size_t at = 0; at < data.size() && sent == KM_IO_OK; at += 4096) {
            sent = KM_IO_Send(handle, data.data() + at, 4096);
        }
    });
    // Reports progress every 10 s so that a slow link shows its rate on the
    // console instead of looking stuck.
    bool complete = false;
    for (int waited = 0; !complete && waited < 18; ++waited) {
        complete = link.waitFor(10s, [&] { return link.received.size() >= data.size(); });
        std::printf("@@note %zu bytes back after %.0f s\n", link.received.size(),
                    std::chrono::duration<double>(Clock::now() - started).count());
        std::fflush(stdout);
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    KM_IO_Close(handle, 1);
    sender.join();
    const bool intact = complete && link.received.size() == data.size() &&
                        std::memcmp(link.received.data(), data.data(), data.size()) == 0;
    report(name, sent.load() == KM_IO_OK && intact && link.errors == 0,
           "send " + std::to_string(sent.load()) + ", " + std::to_string(link.received.size()) +
               " bytes back, " + (intact ? "intact" : "not intact") + ", link errors " +
               std::to_string(link.errors));
    if (intact) {
        figure("echo-throughput-at-" + std::to_string(rate), data.size() / seconds / (1 << 20), "MiB/s");
    }
}

std::string enumerate(std::uint32_t type, const char* options, std::uint32_t& result) {
    std::string text(1 << 16, '\0');
    std::size_t size = text.size();
    result = KM_IO_EnumerateDevices(type, options, text.data(), &size);
    text.resize(result == KM_IO_OK ? size : 0);
    return text;
}

bool listed(const std::string& text, const std::string& port) {
    const std::string locator = "serial:" + port;
    for (std::size_t at = text.find(locator); at != std::string::npos; at = text.find(locator, at + 1)) {
        const std::size_t end = at + locator.size();
        if (end == text.size() || text[end] == '\n' || text[end] == '|') {
            return true;
        }
    }
    return false;
}

bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

template <typename Predicate>
bool pollUntil(std::chrono::seconds limit, Predicate done) {
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

void listingShowsBoth(const std::string& port0, const std::string& port1) {
    std::uint32_t result = 0;
    const std::string text = enumerate(KM_IO_IFACE_SERIAL, "force-rescan", result);
    report("api-listing-shows-both-ports", result == KM_IO_OK && listed(text, port0) && listed(text, port1),
           "result " + std::to_string(result) + ": " + text);
}

void serialNumberPicksItsPort(const std::string& port0, const std::string& port1,
                              const std::string& serial1) {
    std::uint32_t result = 0;
    const std::string options =
        "iface-type serial\nserial-usb-info 1\nforce-rescan 1\ninclude-all 1\nfind-device-sn " + serial1;
    const std::string text = enumerate(KM_IO_IFACE_ALL, options.c_str(), result);
    report("api-serial-number-picks-its-port",
           result == KM_IO_OK && listed(text, port1) && !listed(text, port0) &&
               text.find("device-sn=" + serial1) != std::string::npos,
           "result " + std::to_string(result) + ": " + text);
}

void refusedRate(const std::string& port) {
    Link link;
    std::uint32_t handle = 0;
    const std::uint32_t result = openPort(handle, port, 3500000, link);
    if (result == KM_IO_OK) {
        KM_IO_Close(handle, 1);
    }
    report("rate-the-driver-refuses-fails-to-open", result == KM_IO_ERR_OPEN_FAILED,
           "3500000 baud gave " + std::to_string(result));
}

// Pulls the chip out while bytes flow both ways: one link error, within a
// bounded time, then a clean close; the port leaves the listing and comes
// back when the chip is plugged in again.
void unplugMidTransfer(const std::string& port0, const std::string& port1) {
    Link link;
    std::uint32_t handle = 0;
    if (const std::uint32_t result = openPort(handle, port0, 3000000, link); result != KM_IO_OK) {
        report("unplug-gives-one-link-error", false, "open gave " + std::to_string(result));
        return;
    }
    std::atomic<bool> stop{false};
    std::atomic<std::uint32_t> sendResult{KM_IO_OK};
    std::thread sender([&] {
        const std::vector<unsigned char> block = randomBytes(4096);
        while (!stop) {
            if (const std::uint32_t r = KM_IO_Send(handle, block.data(), block.size()); r != KM_IO_OK) {
                sendResult = r;
                return;
            }
        }
    });
    const bool flowing = link.waitFor(60s, [&] { return link.received.size() >= 256 * 1024; });
    const auto asked = Clock::now();
    askHost("unplug 0");
    const bool failed = link.waitFor(30s, [&] { return link.errors > 0; });
    const bool gone = pollUntil(30s, [&] { return !exists("/sys/class/tty/" + port0.substr(5)); });
    stop = true;
    sender.join();
    const auto closing = Clock::now();
    const std::uint32_t closed = KM_IO_Close(handle, 1);
    const double closeMs = std::chrono::duration<double, std::milli>(Clock::now() - closing).count();
    int errors = 0;
    std::uint32_t code = 0;
    double callbackMs = -1;
    {
        const std::lock_guard<std::mutex> lock(link.mutex);
        errors = link.errors;
        code = link.lastError;
        if (errors > 0) {
            callbackMs = std::chrono::duration<double, std::milli>(link.firstErrorAt - asked).count();
        }
    }
    report("unplug-gives-one-link-error", flowing && failed && errors == 1 && code == KM_IO_ERR_LINK_FAILED,
           "flowing " + std::to_string(flowing) + ", errors " + std::to_string(errors) + ", code " +
               std::to_string(code) + ", send ended with " + std::to_string(sendResult.load()));
    if (callbackMs >= 0) {
        figure("unplug-request-to-link-error", callbackMs, "ms");
    }
    report("unplugged-port-closes-cleanly", closed == KM_IO_OK, "close gave " + std::to_string(closed));
    figure("close-after-unplug", closeMs, "ms");

    std::uint32_t result = 0;
    const std::string after = enumerate(KM_IO_IFACE_SERIAL, "force-rescan", result);
    report("unplugged-port-leaves-the-listing",
           gone && result == KM_IO_OK && !listed(after, port0) && listed(after, port1),
           "sysfs entry gone " + std::to_string(gone) + ", result " + std::to_string(result) + ": " + after);

    askHost("plug 0");
    std::string back;
    const bool returned = pollUntil(60s, [&] {
        back = enumerate(KM_IO_IFACE_SERIAL, "force-rescan", result);
        return result == KM_IO_OK && listed(back, port0);
    });
    report("replugged-port-returns-to-the-listing", returned, back);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s PORT0 PORT1 SERIAL1\n", argv[0]);
        return 2;
    }
    const std::string port0 = argv[1];
    const std::string port1 = argv[2];
    listingShowsBoth(port0, port1);
    serialNumberPicksItsPort(port0, port1, argv[3]);
    for (const unsigned long rate : {9600ul, 115200ul, 250000ul, 3000000ul}) {
        echoAtRate(port0, rate);
    }
    refusedRate(port0);
    unplugMidTransfer(port0, port1);
    return failures;
}
