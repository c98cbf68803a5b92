#pragma once

#if defined(_WIN32)
#include <windows.h>
#endif

namespace kmiotest {

// True when the program runs under Wine, which adds wine_get_version to
// ntdll. Tests that need what Wine cannot carry skip only there, with
// GTEST_SKIP() and the reason; everywhere else they run.
inline bool runningUnderWine() {
#if defined(_WIN32)
    const HMODULE ntdll = ::GetModuleHandleA("ntdll.dll");
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
    return false;
#endif
}

// Why tests that need a socket bound to 127.0.0.1 to hear broadcasts or
// multicasts skip under Wine.
inline constexpr const char* kWineHearsNoLoopbackBroadcasts =
    "Wine binds a socket bound to 127.0.0.1 to that address on Linux, where directed broadcasts and "
    "multicasts on loopback do not reach it";

}  // namespace kmiotest
