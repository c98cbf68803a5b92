#pragma once

#include <chrono>
#include <functional>

namespace kmio {

// The time source of the caches that age their contents (port list, discovery
// passes): steadyClock() in the library, a clock moved by hand in tests, so
// that freshness rules are checked to the millisecond without sleeping.
using Clock = std::function<std::chrono::steady_clock::time_point()>;

inline Clock steadyClock() {
    return [] { return std::chrono::steady_clock::now(); };
}

}  // namespace kmio
