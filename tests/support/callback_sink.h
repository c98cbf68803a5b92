#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace kmiotest {

// Collects what a device's callbacks deliver (the context is the sink), for
// the test thread to wait on.
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
    // True once done holds (checked under the lock), false after 20 s.
    bool waitUntil(const std::function<bool()>& done) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20), done);
    }
};

}  // namespace kmiotest
