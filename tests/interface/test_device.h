#pragma once

// A device with a real receiving thread: bytes sent to it come back through
// onReceive from that thread.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "link/io_device.h"
#include "link/receiver_thread.h"

namespace kmiotest {

struct DeviceCounters {
    std::atomic<int> alive{0};
    std::atomic<int> threadsEnded{0};
    std::uint32_t openResult = KM_IO_OK;
};

class TestDevice : public kmio::IoDevice {
public:
    TestDevice(DeviceCounters& counters, const std::string& locator, void* context,
               KM_IO_ReceiveCallback onReceive)
        : kmio::IoDevice(locator, "", context, onReceive, nullptr), counters_(counters) {
        ++counters_.alive;
    }
    ~TestDevice() override { --counters_.alive; }

    std::uint32_t open(std::shared_ptr<kmio::IoDevice> self) override {
        if (counters_.openResult == KM_IO_OK)
            thread_.start(std::move(self), [this] { run(); });
        return counters_.openResult;
    }
    void close(bool wait) override {
        thread_.stop(wait, [this] { update([this] { stop_ = true; }); });
    }
    std::uint32_t send(const std::uint8_t* data, std::size_t length) override {
        // A send that takes a while lets a racing close free a device that
        // the table did not keep alive for the call.
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        update([&] { pending_.insert(pending_.end(), data, data + length); });
        return KM_IO_OK;
    }
    std::uint32_t getProperty(const char*, char*, std::size_t*) override {
        return KM_IO_ERR_UNKNOWN_PROPERTY;
    }

private:
    template <class Fn>
    void update(Fn fn) {
        std::lock_guard<std::mutex> lock(mutex_);
        fn();
        changed_.notify_one();
    }
    void run() {
        for (std::vector<std::uint8_t> bytes;; bytes.clear()) {
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return stop_ || !pending_.empty(); });
                if (stop_)
                    break;
                bytes.swap(pending_);
            }
            deliver(bytes.data(), bytes.size());
        }
        ++counters_.threadsEnded;
    }

    DeviceCounters& counters_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::uint8_t> pending_;
    bool stop_ = false;
    kmio::ReceiverThread thread_;
};

}  // namespace kmiotest
