#include <windows.h>

#include "platform/scoped_critical_error_mode.h"

namespace kmio {

namespace {

// Windows 7 and later have SetThreadErrorMode; older systems only the
// process-wide SetErrorMode. It is looked up, not imported, so that the
// library still loads where it is missing.
using SetThreadErrorModeFunction = BOOL(WINAPI*)(DWORD newMode, LPDWORD oldMode);

SetThreadErrorModeFunction setThreadErrorModeOf(const DynamicLibrary& kernel32) {
    return reinterpret_cast<SetThreadErrorModeFunction>(kernel32.symbol("SetThreadErrorMode"));
}

}  // namespace

ScopedCriticalErrorMode::ScopedCriticalErrorMode() : systemLibrary_("kernel32.dll") {
    if (!systemLibrary_) {
        return;
    }
    active_ = true;
    if (const SetThreadErrorModeFunction setThreadErrorMode = setThreadErrorModeOf(systemLibrary_)) {
        DWORD old = 0;
        perThread_ = setThreadErrorMode(SEM_FAILCRITICALERRORS, &old) != 0;
        if (perThread_) {
            previous_ = old;
            return;
        }
    }
    previous_ = ::SetErrorMode(SEM_FAILCRITICALERRORS);
}

ScopedCriticalErrorMode::~ScopedCriticalErrorMode() {
    if (!active_) {
        return;
    }
    if (perThread_) {
        setThreadErrorModeOf(systemLibrary_)(static_cast<DWORD>(previous_), nullptr);
    } else {
        ::SetErrorMode(static_cast<UINT>(previous_));
    }
}

}  // namespace kmio
