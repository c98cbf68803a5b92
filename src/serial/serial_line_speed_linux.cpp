// <asm/termbits.h> redefines struct termios and the termios macros of
// <termios.h>, so the termios2 calls live alone in this file.
#include <asm/termbits.h>
#include <sys/ioctl.h>

#include "serial/serial_line_speed.h"

namespace kmio {

bool setArbitraryLineSpeed(int fd, std::uint32_t rate) {
    struct termios2 settings {};
    if (::ioctl(fd, TCGETS2, &settings) != 0) {
        return false;
    }
    settings.c_cflag &= ~(CBAUD | (CBAUD << IBSHIFT));
    settings.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
    settings.c_ispeed = rate;
    settings.c_ospeed = rate;
    return ::ioctl(fd, TCSETS2, &settings) == 0;
}

std::optional<std::uint32_t> readLineSpeed(int fd) {
    struct termios2 settings {};
    if (::ioctl(fd, TCGETS2, &settings) != 0) {
        return std::nullopt;
    }
    return settings.c_ospeed;
}

}  // namespace kmio
