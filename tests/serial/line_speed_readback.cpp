// termios2 cannot share a file with <termios.h>, hence this file of its own:
// the line speed a terminal reports through termios2 when set through BOTHER.
#include <asm/termbits.h>
#include <sys/ioctl.h>

#include <cstdint>

namespace kmiotest {

std::uint32_t readBackLineSpeed(int fd) {
    struct termios2 settings {};
    if (::ioctl(fd, TCGETS2, &settings) != 0) {
        return 0;
    }
    return (settings.c_cflag & CBAUD) == BOTHER ? settings.c_ospeed : 0;
}

}  // namespace kmiotest
