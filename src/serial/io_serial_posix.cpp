#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "platform/unique_fd.h"
#include "serial/io_serial.h"
#include "serial/serial_line_speed.h"

namespace kmio {

namespace {

struct StandardRate {
    std::uint32_t rate;
    speed_t code;
};

constexpr std::array kStandardRates{
    StandardRate{50, B50},           StandardRate{75, B75},           StandardRate{110, B110},
    StandardRate{134, B134},         StandardRate{150, B150},         StandardRate{200, B200},
    StandardRate{300, B300},         StandardRate{600, B600},         StandardRate{1200, B1200},
    StandardRate{1800, B1800},       StandardRate{2400, B2400},       StandardRate{4800, B4800},
    StandardRate{9600, B9600},       StandardRate{19200, B19200},     StandardRate{38400, B38400},
    StandardRate{57600, B57600},     StandardRate{115200, B115200},   StandardRate{230400, B230400},
    StandardRate{460800, B460800},   StandardRate{500000, B500000},   StandardRate{576000, B576000},
    StandardRate{921600, B921600},   StandardRate{1000000, B1000000}, StandardRate{1152000, B1152000},
    StandardRate{1500000, B1500000}, StandardRate{2000000, B2000000}, StandardRate{2500000, B2500000},
    StandardRate{3000000, B3000000}, StandardRate{3500000, B3500000}, StandardRate{4000000, B4000000},
};

std::optional<speed_t> standardCode(std::uint32_t rate) {
    for (const auto& entry : kStandardRates) {
        if (entry.rate == rate) {
            return entry.code;
        }
    }
    return std::nullopt;
}

// Drivers that cannot produce a rate may quietly pick another one instead of
// failing, so the rate is read back. A UART pair tolerates a few percent of
// clock mismatch in total; beyond 2.5 % on our side bytes arrive garbled.
bool closeEnough(std::uint32_t actual, std::uint32_t wanted) {
    const std::uint64_t diff = actual > wanted ? actual - wanted : wanted - actual;
    return diff * 1000 <= std::uint64_t{wanted} * 25;
}

// Raw 8N1 at the given rate, receiver on, modem lines ignored, software flow
// control on request. Returns false when the driver refuses any part of it.
bool configureLine(int fd, const SerialOpenOptions& options) {
    termios settings{};
    if (::tcgetattr(fd, &settings) != 0) {
        return false;
    }
    ::cfmakeraw(&settings);
    settings.c_cflag &= ~(CSIZE | PARENB | CSTOPB | CRTSCTS);
    settings.c_cflag |= CS8 | CLOCAL | CREAD;
    settings.c_iflag &= ~(IXON | IXOFF | IXANY);
    if (options.xonxoff) {
        settings.c_iflag |= IXON | IXOFF;
    }
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    const std::optional<speed_t> code = standardCode(options.baudrate);
    if (code && ::cfsetspeed(&settings, *code) != 0) {
        return false;
    }
    if (::tcsetattr(fd, TCSANOW, &settings) != 0) {
        return false;
    }
    if (code) {
        termios applied{};
        return ::tcgetattr(fd, &applied) == 0 && ::cfgetospeed(&applied) == *code;
    }
    if (!setArbitraryLineSpeed(fd, options.baudrate)) {
        return false;
    }
    const std::optional<std::uint32_t> applied = readLineSpeed(fd);
    return applied && closeEnough(*applied, options.baudrate);
}

// Devices on the other end commonly wait for DTR (and RTS) before they talk.
bool assertModemLines(int fd) {
    int lines = TIOCM_DTR | TIOCM_RTS;
    if (::ioctl(fd, TIOCMBIS, &lines) == 0) {
        return true;
    }
    // Pseudo-terminals and some USB bridges have no modem lines and answer
    // ENOTTY or EINVAL; such a port still carries data, so that is no failure.
    return errno == ENOTTY || errno == EINVAL;
}

}  // namespace

struct IoSerial::Port {
    UniqueFd fd;
};

void IoSerial::PortDeleter::operator()(Port* port) const noexcept {
    // Exclusive mode belongs to the terminal, not to our descriptor: clear it
    // so that the next program can open the port even while some other
    // descriptor keeps the terminal alive.
    ::ioctl(port->fd.get(), TIOCNXCL);
    delete port;
}

std::uint32_t IoSerial::openPort(const std::string& portName, const SerialOpenOptions& options) {
    const std::string path = portName.find('/') == std::string::npos ? "/dev/" + portName : portName;
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    // The lock keeps out programs that cooperate through flock (as ours
    // does); TIOCEXCL, set last so that a failed open leaves no trace on
    // the port, keeps out any later open() by unprivileged programs.
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 || !configureLine(fd.get(), options) ||
        !assertModemLines(fd.get()) || ::ioctl(fd.get(), TIOCEXCL) != 0) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    port_.reset(new Port{std::move(fd)});
    return KM_IO_OK;
}

void IoSerial::receiveLoop() {
    const int port = port_->fd.get();
    const int stopFd = static_cast<int>(stop_->native());
    // Read in batches and hand over blocks of at most 1024 bytes: a burst
    // costs a fraction of the reads, and the application sees the blocks
    // that 1024-byte reads would give.
    std::vector<std::uint8_t> buffer(kReadBatchSize);
    bool failed = false;
    const auto fail = [&] {
        failed = true;
        reportLinkError(KM_IO_ERR_LINK_FAILED);
    };
    for (;;) {
        // After a failure only the stop request is awaited: a hung-up port
        // stays readable forever and would otherwise spin this loop.
        std::array<pollfd, 2> fds{pollfd{stopFd, POLLIN, 0}, pollfd{port, POLLIN, 0}};
        const int ready = ::poll(fds.data(), failed ? 1 : 2, -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (!failed) {
                fail();
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            continue;
        }
        if (fds[0].revents != 0) {
            break;
        }
        const short events = fds[1].revents;
        if ((events & POLLIN) != 0) {
            // A full batch usually means more is waiting: read on without
            // another poll until the port runs dry, so that a burst costs one
            // poll rather than one per batch.
            ssize_t n = 0;
            do {
                n = ::read(port, buffer.data(), buffer.size());
                if (n > 0) {
                    deliverInBlocks(buffer.data(), static_cast<std::size_t>(n));
                }
            } while (n == static_cast<ssize_t>(buffer.size()) && !stopping_.load(std::memory_order_relaxed));
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                fail();  // end of file: the other side hung up
            }
        } else if ((events & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            fail();
        }
    }
    releasePort();
}

bool IoSerial::writeAll(const std::uint8_t* data, std::size_t length) {
    const int stopFd = static_cast<int>(stop_->native());
    std::size_t written = 0;
    while (written < length) {
        const ssize_t n = ::write(port_->fd.get(), data + written, length - written);
        if (n > 0) {
            written += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN) {
            return false;
        }
        // The output queue is full: wait, without a time limit, for room or
        // for close, which abandons the rest of the data.
        std::array<pollfd, 2> fds{pollfd{port_->fd.get(), POLLOUT, 0}, pollfd{stopFd, POLLIN, 0}};
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (fds[1].revents != 0 || (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace kmio
