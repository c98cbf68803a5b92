#include "link/receiver_thread.h"

#include <utility>

#include "platform/join_or_detach.h"

namespace kmio {

void ReceiverThread::start(std::shared_ptr<IoDevice> self, std::function<void()> body) {
    thread_ = std::thread([self = std::move(self), body = std::move(body)]() mutable {
        body();
        // Dropping the last reference here may destroy the device on its own
        // thread; the device destructor therefore must not join.
        self.reset();
    });
}

void ReceiverThread::stop(bool wait, const std::function<void()>& requestStop) {
    if (!wait) {
        thread_.detach();
        requestStop();
        return;
    }
    requestStop();
    joinOrDetach(thread_);
}

}  // namespace kmio
