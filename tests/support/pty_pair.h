#pragma once

#include <fcntl.h>
#include <pty.h>

#include <stdexcept>
#include <string>

#include "platform/unique_fd.h"

namespace kmiotest {

// A pseudo-terminal standing in for a serial port: the code under test opens
// the slave by its path, the test drives the master. Both descriptors are
// close-on-exec, so that a child never holds the line open: closing the
// master here really hangs it up.
struct PtyPair {
    kmio::UniqueFd master;
    kmio::UniqueFd slave;
    std::string slavePath;

    PtyPair() {
        int m = -1, s = -1;
        char name[128] = {};
        if (::openpty(&m, &s, name, nullptr, nullptr) != 0) {
            throw std::runtime_error("openpty failed");
        }
        master.reset(m);
        slave.reset(s);
        ::fcntl(m, F_SETFD, FD_CLOEXEC);
        ::fcntl(s, F_SETFD, FD_CLOEXEC);
        slavePath = name;
    }
    std::string locator() const { return "serial:" + slavePath; }
};

}  // namespace kmiotest
