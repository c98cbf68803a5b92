#pragma once

#include <atomic>
#include <chrono>

#include "platform/clock.h"

namespace kmiotest {

// A steady clock that moves only when the test moves it, for caches that
// take their clock as a constructor argument.
class ManualClock {
public:
    kmio::Clock clock() {
        return [this] { return now_.load(); };
    }
    void advance(std::chrono::milliseconds by) { now_.store(now_.load() + by); }

private:
    // Starts well away from the epoch, as a real steady clock does.
    std::atomic<std::chrono::steady_clock::time_point> now_{std::chrono::steady_clock::time_point() +
                                                            std::chrono::hours(1)};
};

}  // namespace kmiotest
