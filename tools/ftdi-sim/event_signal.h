#pragma once

namespace ftdisim {

// Wakes a program waiting on the receive event it gave to
// FT_SetEventNotification, the way the driver of this system does it (on
// Linux: lock eMutex, signal eCondVar, unlock; on Windows: set the event).
void signalReceiveEvent(void* event);

}  // namespace ftdisim
