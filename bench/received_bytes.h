#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// The application side of a benchmark: counts the bytes the library hands to
// the receive callback and lets the benchmark thread sleep until an awaited
// count has arrived, as a plain socket's reader blocks in recv().
class ReceivedBytes {
public:
    // Called from the receive callback.
    void add(std::size_t length) {
        if (received_.fetch_add(length, std::memory_order_release) + length >= awaited_.load()) {
            received_.notify_one();
        }
    }

    // Call before sending what is to be awaited; gives the count to await.
    std::uint64_t expectMore(std::uint64_t bytes) {
        const std::uint64_t target = received_.load() + bytes;
        awaited_.store(target);
        return target;
    }

    void await(std::uint64_t target) {
        for (std::uint64_t seen; (seen = received_.load(std::memory_order_acquire)) < target;) {
            received_.wait(seen);
        }
    }

private:
    std::atomic<std::uint64_t> received_{0};
    std::atomic<std::uint64_t> awaited_{0};
};
