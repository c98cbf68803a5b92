#pragma once

// Helpers for the network enumeration tests, which use the library only
// through its public interface and kmio-sim as their devices.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "kmio/kmio.h"
#include "netns/child_process.h"

namespace kmiotest {

using namespace std::chrono_literals;

// Runs KM_IO_EnumerateDevices(9999, ...) and returns the lines of its text
// that name our simulated devices (serial numbers NE...): other programs may
// run simulators on loopback too. rc gets the result.
inline std::string enumerate(const std::string& options, std::uint32_t& rc) {
    std::vector<char> buffer(1 << 20);
    std::size_t size = buffer.size();
    rc = KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, options.c_str(), buffer.data(), &size);
    std::string ours;
    std::size_t start = 0;
    for (const std::string_view text(buffer.data(), rc == KM_IO_OK ? size : 0); start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        if (const std::string_view line = text.substr(start, end - start); line.find("NE0") != line.npos) {
            ours += std::string(ours.empty() ? "" : "\n") + std::string(line);
        }
        start = end + 1;
    }
    return ours;
}

// The start of every enumeration on loopback.
inline const std::string kLoopback = "iface-type network\niface network:127.0.0.1\n";

// kmio-sim with `count` devices on one address, ready to answer.
inline std::unique_ptr<ChildProcess> startSimulator(const std::string& address, unsigned count,
                                                    std::uint16_t firstPort,
                                                    const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv = {KMIO_SIM_PATH,
                                     "--iface",
                                     address,
                                     "--count",
                                     std::to_string(count),
                                     "--first-port",
                                     std::to_string(firstPort)};
    // Our own prefix keeps devices of other programs on loopback out of the results.
    argv.insert(argv.end(), {"--serial-prefix", "NE"});
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto sim = std::make_unique<ChildProcess>(argv);
    EXPECT_TRUE(sim->waitForLine("ready", 10s)) << sim->output();
    return sim;
}

// Records every discovery event as (type, full record text), and what a
// table function called from inside the callback did.
class EventLog {
public:
    EventLog() { KM_IO_SetEventCallback(&EventLog::callback, this); }
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;
    ~EventLog() { KM_IO_SetEventCallback(nullptr, nullptr); }

    // Waits until at least n events have arrived; returns how many there are.
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
        const std::uint32_t rc = KM_IO_GetDiscoveryEventData(event, "include-all", text, &size);
        if (rc == KM_IO_OK && std::string_view(text, size).find("device-sn=NE") == std::string_view::npos) {
            return;  // a device of some other program on loopback
        }
        bool reentryFailed = false;
        try {
            // The callback runs under the table mutex: this must throw, not hang.
            KM_IO_Close(63, 0);
        } catch (const std::system_error& error) {
            reentryFailed = error.code() == std::errc::resource_deadlock_would_occur;
        }
        const std::lock_guard lock(log->mutex_);
        log->events_.emplace_back(type,
                                  rc == KM_IO_OK ? std::string(text, size) : "rc " + std::to_string(rc));
        log->reentryFailures_ += reentryFailed ? 1 : 0;
        log->arrived_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::pair<std::uint32_t, std::string>> events_;
    std::size_t reentryFailures_ = 0;
};

}  // namespace kmiotest
