#include "platform/unique_fd.h"

#include <unistd.h>

namespace kmio {

void UniqueFd::reset(int fd) noexcept {
    if (fd_ >= 0) {
        // close() is not retried on EINTR: on Linux the descriptor is gone
        // either way, and a retry could close one another thread just opened.
        ::close(fd_);
    }
    fd_ = fd;
}

}  // namespace kmio
