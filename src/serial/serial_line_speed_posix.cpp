#include <termios.h>

#include "serial/serial_line_speed.h"

namespace kmio {

// On the BSDs and macOS, speed_t is the bit rate itself, so termios takes any
// rate the driver accepts and reports the rate it set; Linux, where speed_t
// is a Bnnn code, uses the termios2 twin instead.

bool setArbitraryLineSpeed(int fd, std::uint32_t rate) {
    termios settings{};
    return ::tcgetattr(fd, &settings) == 0 && ::cfsetspeed(&settings, static_cast<speed_t>(rate)) == 0 &&
           ::tcsetattr(fd, TCSANOW, &settings) == 0;
}

std::optional<std::uint32_t> readLineSpeed(int fd) {
    termios settings{};
    if (::tcgetattr(fd, &settings) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(::cfgetospeed(&settings));
}

}  // namespace kmio
