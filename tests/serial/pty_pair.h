#pragma once

#include <termios.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "devices/device_factory.h"
#include "platform/unique_fd.h"
#include "support/pty_pair.h"

namespace kmio::test {

// The test keeps its own slave descriptor, to read back the line settings,
// which start cooked (canonical, echo, CR translation) so that the device
// must make them raw.
using kmiotest::PtyPair;

// Collects what a device's callbacks deliver.
struct Sink {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::uint8_t> bytes;
    std::size_t largestBlock = 0;
    std::vector<std::uint32_t> errors;
    std::atomic<bool> closed{false};  // set by the test once close(true) returned
    int callsAfterClose = 0;

    template <class Fn>
    static void record(void* context, Fn fn) {
        auto* sink = static_cast<Sink*>(context);
        std::lock_guard lock(sink->mutex);
        fn(*sink);
        sink->callsAfterClose += sink->closed ? 1 : 0;
        sink->changed.notify_all();
    }
    static void onReceive(void* context, const std::uint8_t* data, std::size_t length) {
        record(context, [&](Sink& s) {
            s.bytes.insert(s.bytes.end(), data, data + length);
            s.largestBlock = std::max(s.largestBlock, length);
        });
    }
    static void onError(void* context, std::uint32_t code) {
        record(context, [&](Sink& s) { s.errors.push_back(code); });
    }
    bool waitUntil(const std::function<bool()>& done) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20), done);
    }
};

// Creates and opens a serial device the way KM_IO_Open does.
inline std::shared_ptr<IoDevice> openSerial(const std::string& locator, const std::string& options,
                                            Sink& sink, std::uint32_t& result) {
    auto device = makeDevice(KM_IO_IFACE_SERIAL, locator, options, &sink, &Sink::onReceive, &Sink::onError);
    result = device->open(device);
    return result == KM_IO_OK ? device : nullptr;
}

// The output rate of a terminal as termios2 reports it when set through
// BOTHER, else 0 (line_speed_readback.cpp).
std::uint32_t readBackLineSpeed(int fd);

}  // namespace kmio::test
