// The receive event on Linux: the driver's EVENT_HANDLE, a condition variable
// and its mutex that the driver signals when bytes arrive. The stop request
// shares them: a flag set under the mutex and a signal, so that close() wakes
// the thread at once.
#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "usb/d2xx_types.h"
#include "usb/ftdi_receive_event.h"

namespace kmio {

struct FtdiReceiveEvent::State {
    d2xx::EVENT_HANDLE handle{};
    bool stop = false;  // guarded by handle.eMutex
    bool ready = false;

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
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
};

FtdiReceiveEvent::FtdiReceiveEvent() : state_(std::make_unique<State>()) {
    if (!state_->initialise()) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                "Could not create the receive event");
    }
}

FtdiReceiveEvent::~FtdiReceiveEvent() = default;

void* FtdiReceiveEvent::driverArgument() noexcept {
    return &state_->handle;
}

FtdiReceiveEvent::Wake FtdiReceiveEvent::wait(std::uint32_t timeoutMs) {
    pthread_mutex_t* mutex = &state_->handle.eMutex;
    pthread_cond_t* condition = &state_->handle.eCondVar;
    ::pthread_mutex_lock(mutex);
    int waited = 0;
    if (!state_->stop) {
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
    const bool stop = state_->stop;
    ::pthread_mutex_unlock(mutex);
    if (stop) {
        return Wake::Stopped;
    }
    if (waited == 0) {
        return Wake::Received;
    }
    return waited == ETIMEDOUT ? Wake::TimedOut : Wake::Failed;
}

void FtdiReceiveEvent::requestStop() noexcept {
    ::pthread_mutex_lock(&state_->handle.eMutex);
    state_->stop = true;
    ::pthread_cond_signal(&state_->handle.eCondVar);
    ::pthread_mutex_unlock(&state_->handle.eMutex);
}

}  // namespace kmio
