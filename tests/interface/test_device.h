#pragma once

// A device with a real receiving thread, for testing the device table and the
// receiving-thread contract without a link: bytes sent to it come back through
// onReceive from its own thread, and failLink() makes that thread report a
// link error.

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "devices/io_device.h"
#include "devices/receiver_thread.h"
#include "options/text_output.h"
#include "platform/wake_event.h"

namespace kmio::test {

// What the test can see of the devices a factory made.
struct DeviceCounters {
    std::atomic<int> alive{0};
    std::atomic<int> threadsEnded{0};
    std::uint32_t openResult = KM_IO_OK;  // what open() answers
};

class TestDevice : public IoDevice {
public:
    TestDevice(DeviceCounters& counters, const std::string& locator, const std::string& options,
               void* context, KM_IO_ReceiveCallback onReceive, KM_IO_LinkErrorCallback onError)
        : IoDevice(locator, options, context, onReceive, onError), counters_(counters) {
        ++counters_.alive;
    }
    ~TestDevice() override { --counters_.alive; }

    std::uint32_t open(std::shared_ptr<IoDevice> self) override {
        if (counters_.openResult != KM_IO_OK) {
            return counters_.openResult;
        }
        thread_.start(std::move(self), [this] { run(); });
        return KM_IO_OK;
    }
    void close(bool wait) override {
        thread_.stop(wait, [this] {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
            wake_.signal();
        });
    }
    std::uint32_t send(const std::uint8_t* data, std::size_t length) override {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_.insert(pending_.end(), data, data + length);
        wake_.signal();
        return KM_IO_OK;
    }
    std::uint32_t getProperty(const char* key, char* value, std::size_t* ioSize) override {
        return std::string_view(key) == "locator" ? copyTextOut(locator(), value, ioSize)
                                                  : KM_IO_ERR_UNKNOWN_PROPERTY;
    }
    void failLink(std::uint32_t code) {
        std::lock_guard<std::mutex> lock(mutex_);
        linkError_ = code;
        wake_.signal();
    }

private:
    void run() {
        for (;;) {
            pollfd pfd{wake_.fd(), POLLIN, 0};
            ::poll(&pfd, 1, -1);
            std::vector<std::uint8_t> bytes;
            std::uint32_t error = 0;
            bool stop = false;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                wake_.reset();
                bytes.swap(pending_);
                std::swap(error, linkError_);
                stop = stop_;
            }
            if (stop) {
                break;
            }
            if (!bytes.empty()) {
                deliver(bytes.data(), bytes.size());
            }
            if (error != 0) {
                reportLinkError(error);
            }
        }
        ++counters_.threadsEnded;
    }

    DeviceCounters& counters_;
    std::mutex mutex_;
    WakeEvent wake_;
    std::vector<std::uint8_t> pending_;
    std::uint32_t linkError_ = 0;
    bool stop_ = false;
    ReceiverThread thread_;
};

}  // namespace kmio::test
