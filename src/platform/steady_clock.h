#pragma once

#include <chrono>
#include <cstdint>

namespace kmio {

// Monotonic time in nanoseconds, for cache ages and discovery time stamps.
inline std::int64_t steadyNowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace kmio
