#pragma once

// Helpers for the tests that use the library through its public interface,
// with kmio-sim (serial numbers NE...) as the devices.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "kmio/kmio.h"
#include "support/checks.h"
#if defined(_WIN32)
#include "support/child_process_win32.h"
#else
#include "support/child_process.h"
#endif

namespace kmiotest {

using namespace std::chrono_literals;

inline const std::string kLoopbackEnumeration = "iface-type network\niface network:127.0.0.1\n";

// KM_IO_EnumerateDevices(9999, ...) and only the lines that hold the marker
// (our devices' serial-number prefix): other programs may run simulators on
// loopback too. A pass waits 500 ms for replies unless the options say
// otherwise (the first value of a key wins): on a loaded machine, sanitizers
// included, the default 100 ms can expire before a reply is read, and the
// pass would then age out a device that is there.
inline std::string enumerateLinesHolding(const std::string& options, const std::string& marker,
                                         std::uint32_t& rc) {
    std::vector<char> buffer(1 << 20);
    std::size_t size = buffer.size();
    const std::string withTimeout = options + "\ndiscovery-timeout 500";
    rc = KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, withTimeout.c_str(), buffer.data(), &size);
    std::istringstream text(std::string(buffer.data(), rc == KM_IO_OK ? size : 0));
    std::string ours;
    for (std::string line; std::getline(text, line);) {
        if (line.find(marker) != std::string::npos) {
            ours += (ours.empty() ? "" : "\n") + line;
        }
    }
    return ours;
}

// The lines of the NE... devices that these tests start.
inline std::string enumerate(const std::string& options, std::uint32_t& rc) {
    return enumerateLinesHolding(options, "NE0", rc);
}

// One device's record with every field, as kmio-sim reports it.
inline std::string deviceLine(const std::string& serial, std::uint16_t port, const std::string& locator,
                              const std::string& available = "1", const std::string& host = "127.0.0.1",
                              const std::string& iface = "127.0.0.1", const std::string& info = "kmio-sim") {
    return "iface-type=network|network-host=" + host + "|network-port=" + std::to_string(port) +
           "|device-type=7|device-sn=" + serial + "|available=" + available +
           "|protocol-id=42|locator=" + locator + "|iface=network:" + iface + "|device-info=" + info;
}

// Opens the locator, sends a line and expects it back.
inline void expectEcho(const std::string& locator, const std::string& options) {
    SCOPED_TRACE(locator + " with " + options);
    static std::atomic<std::size_t> received;
    received = 0;
    const auto count = [](void*, const std::uint8_t*, std::size_t length) { received += length; };
    std::uint32_t handle = 0;
    ASSERT_EQ(KM_IO_Open(&handle, locator.c_str(), options.c_str(), nullptr, count, nullptr), KM_IO_OK);
    ASSERT_EQ(KM_IO_Send(handle, "ping\n", 5), KM_IO_OK);
    EXPECT_TRUE(eventually([] { return received >= 5; }));
    EXPECT_EQ(received, 5u);
    EXPECT_EQ(KM_IO_Close(handle, 1), KM_IO_OK);
}

inline std::unique_ptr<ChildProcess> startSimulator(unsigned count, std::uint16_t firstPort) {
    auto sim = std::make_unique<ChildProcess>(
        std::vector<std::string>{KMIO_SIM_PATH, "--iface", "127.0.0.1", "--serial-prefix", "NE", "--count",
                                 std::to_string(count), "--first-port", std::to_string(firstPort)});
    EXPECT_TRUE(sim->waitForLine("ready", 10s)) << sim->out();
    return sim;
}

// Every discovery event of our devices as (type, record text), and how often
// a table function called from inside the callback failed as it must.
class EventLog {
public:
    EventLog() { KM_IO_SetEventCallback(&EventLog::callback, this); }
    ~EventLog() { KM_IO_SetEventCallback(nullptr, nullptr); }

    // Waits until n events have arrived; returns how many there are.
    std::size_t waitFor(std::size_t n, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock lock(mutex_);
        arrived_.wait_for(lock, timeout, [&] { return events_.size() >= n; });
        return events_.size();
    }
    std::pair<std::uint32_t, std::string> at(std::size_t i) {
        const std::lock_guard lock(mutex_);
        return events_.at(i);
    }
    std::size_t reentryFailures() {
        const std::lock_guard lock(mutex_);
        return reentryFailures_;
    }

private:
    static void callback(void* self, std::uint32_t type, const KM_IO_Event* event) {
        auto* log = static_cast<EventLog*>(self);
        char text[2048];
        std::size_t size = sizeof text;
        if (KM_IO_GetDiscoveryEventData(event, "include-all", text, &size) != KM_IO_OK ||
            std::string(text, size).find("device-sn=NE") == std::string::npos) {
            return;
        }
        bool refused = false;
        try {
            KM_IO_Close(63, 0);  // takes the table mutex, which the callback holds
        } catch (const std::system_error& error) {
            // By value: on Windows kmio.dll has a C++ runtime of its own, whose
            // error categories are other objects than this program's.
            refused = error.code().value() == static_cast<int>(std::errc::resource_deadlock_would_occur);
        }
        const std::lock_guard lock(log->mutex_);
        log->events_.emplace_back(type, std::string(text, size));
        log->reentryFailures_ += refused ? 1 : 0;
        log->arrived_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::pair<std::uint32_t, std::string>> events_;
    std::size_t reentryFailures_ = 0;
};

}  // namespace kmiotest
