// The receive event of IoFtdi on Linux: the driver's EVENT_HANDLE, a
// condition variable and its mutex that the driver signals when bytes
// arrive. The stop request shares them: a flag set under the mutex and a
// signal, so that close() wakes the thread at once.
#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <memory>

#include "usb/io_ftdi.h"

namespace kmio {

struct IoFtdi::ReceiveEvent {
    d2xx::EVENT_HANDLE handle{};
    bool stop = false;  // guarded by handle.eMutex

    ReceiveEvent() = default;
    ReceiveEvent(const ReceiveEvent&) = delete;
    ReceiveEvent& operator=(const ReceiveEvent&) = delete;
    ~ReceiveEvent() {
        if (ready) {
            ::pthread_cond_destroy(&handle.eCondVar);
            ::pthread_mutex_destroy(&handle.eMutex);
        }
    }

    // Timed waits measure steady time, so a change of the wall clock does
    // not stretch or cut a health-check period.
    bool initialise() {
        pthread_condattr_t attributes;
        if (::pthread_condattr_init(&attributes) != 0) {
            return false;
        }
        const bool condition = ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0 &&
                               ::pthread_cond_init(&handle.eCondVar, &attributes) == 0;
        ::pthread_condattr_destroy(&attributes);
        if (!condition) {
            return false;
        }
        if (::pthread_mutex_init(&handle.eMutex, nullptr) != 0) {
            ::pthread_cond_destroy(&handle.eCondVar);
            return false;
        }
        ready = true;
        return true;
    }

    bool ready = false;
};

void IoFtdi::ReceiveEventDeleter::operator()(ReceiveEvent* event) const noexcept {
    delete event;
}

bool IoFtdi::createReceiveEvent() {
    std::unique_ptr<ReceiveEvent, ReceiveEventDeleter> event(new ReceiveEvent);
    if (!event->initialise()) {
        return false;
    }
    event_ = std::move(event);
    return true;
}

void* IoFtdi::receiveEventArgument() {
    return &event_->handle;
}

IoFtdi::Wake IoFtdi::waitForReceiveEvent(std::uint32_t timeoutMs) {
    pthread_mutex_t* mutex = &event_->handle.eMutex;
    pthread_cond_t* condition = &event_->handle.eCondVar;
    ::pthread_mutex_lock(mutex);
    int waited = 0;
    if (!event_->stop) {
        if (timeoutMs == 0) {
            waited = ::pthread_cond_wait(condition, mutex);
        } else {
            timespec deadline{};
            ::clock_gettime(CLOCK_MONOTONIC, &deadline);
            deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
            deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
            if (deadline.tv_nsec >= 1000000000L) {
                deadline.tv_sec += 1;
                deadline.tv_nsec -= 1000000000L;
            }
            waited = ::pthread_cond_timedwait(condition, mutex, &deadline);
        }
    }
    const bool stop = event_->stop;
    ::pthread_mutex_unlock(mutex);
    if (stop) {
        return Wake::Stopped;
    }
    if (waited == 0) {
        return Wake::Received;
    }
    return waited == ETIMEDOUT ? Wake::TimedOut : Wake::Failed;
}

void IoFtdi::requestStop() {
    if (!event_) {
        return;
    }
    ::pthread_mutex_lock(&event_->handle.eMutex);
    event_->stop = true;
    ::pthread_cond_signal(&event_->handle.eCondVar);
    ::pthread_mutex_unlock(&event_->handle.eMutex);
}

}  // namespace kmio
