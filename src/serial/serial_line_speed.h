#pragma once

#include <cstdint>
#include <optional>

namespace kmio {

// Sets any bit rate on a terminal through the kernel's termios2 interface
// (BOTHER), for rates that have no Bnnn constant. Returns false when the
// driver refuses the request. The other settings of the port stay as they are.
bool setArbitraryLineSpeed(int fd, std::uint32_t rate);

// The output rate the driver reports through termios2, or nullopt when it
// cannot be read.
std::optional<std::uint32_t> readLineSpeed(int fd);

}  // namespace kmio
