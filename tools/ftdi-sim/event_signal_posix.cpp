#include <pthread.h>

#include "event_signal.h"
#include "usb/d2xx_types.h"

namespace ftdisim {

void signalReceiveEvent(void* event) {
    auto* handle = static_cast<kmio::d2xx::EVENT_HANDLE*>(event);
    pthread_mutex_lock(&handle->eMutex);
    pthread_cond_signal(&handle->eCondVar);
    pthread_mutex_unlock(&handle->eMutex);
}

}  // namespace ftdisim
