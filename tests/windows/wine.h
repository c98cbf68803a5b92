#pragma once

#include <windows.h>

namespace kmiotest {

// True when the program runs under Wine, which adds wine_get_version to
// ntdll. Tests that need what Wine cannot carry skip only there.
inline bool runningUnderWine() {
    const HMODULE ntdll = ::GetModuleHandleA("ntdll.dll");
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

}  // namespace kmiotest
