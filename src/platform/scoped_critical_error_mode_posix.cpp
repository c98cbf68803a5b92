#include "platform/scoped_critical_error_mode.h"

namespace kmio {

// A failing load reports through dlerror; nothing ever waits for the user.
ScopedCriticalErrorMode::ScopedCriticalErrorMode() : active_(true) {}

ScopedCriticalErrorMode::~ScopedCriticalErrorMode() = default;

}  // namespace kmio
