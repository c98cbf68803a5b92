#include "platform/socket.h"

#include <sys/socket.h>
#include <unistd.h>

namespace kmio {

void Socket::reset(Native handle) noexcept {
    if (handle_ != kInvalid) {
        // Not retried on EINTR: on Linux the descriptor is gone either way.
        ::close(static_cast<int>(handle_));
    }
    handle_ = handle;
}

void Socket::shutdownBoth() noexcept {
    if (handle_ != kInvalid) {
        ::shutdown(static_cast<int>(handle_), SHUT_RDWR);
    }
}

void startSocketLibrary() {}

}  // namespace kmio
