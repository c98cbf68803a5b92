#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace kmiotest {

// The message of the E that f throws, or "no exception".
template <typename E, typename F>
std::string thrown(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "no exception";
}

// Polls until the condition holds (true) or 10 s pass (false).
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace kmiotest
