#include <windows.h>

#include "event_signal.h"

namespace ftdisim {

// On Windows the argument of FT_SetEventNotification is the event handle.
void signalReceiveEvent(void* event) {
    ::SetEvent(static_cast<HANDLE>(event));
}

}  // namespace ftdisim
