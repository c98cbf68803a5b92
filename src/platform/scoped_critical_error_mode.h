#pragma once

#include "platform/dynamic_library.h"

namespace kmio {

// While it lives, the system fails critical errors of the calling code
// without asking the user (on Windows a missing disk or a broken DLL would
// otherwise raise a dialog box in the middle of a library load). The old mode
// comes back when the object goes. Where the thread's own mode can be set it
// is, so other threads keep theirs; otherwise the process mode is changed.
// Systems without such dialogs need nothing and the object does nothing.
class ScopedCriticalErrorMode {
public:
    ScopedCriticalErrorMode();
    ScopedCriticalErrorMode(const ScopedCriticalErrorMode&) = delete;
    ScopedCriticalErrorMode& operator=(const ScopedCriticalErrorMode&) = delete;
    ~ScopedCriticalErrorMode();

    // False when the mode could not be set (the system library that sets it
    // could not be loaded); nothing is restored then.
    bool active() const noexcept { return active_; }

private:
    bool active_ = false;
    // Read only by the Windows twin, which restores the mode it replaced.
    [[maybe_unused]] bool perThread_ = false;
    [[maybe_unused]] unsigned long previous_ = 0;
    DynamicLibrary systemLibrary_;
};

}  // namespace kmio
