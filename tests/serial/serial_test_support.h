#pragma once

#include <termios.h>

#include <cstdint>
#include <memory>
#include <string>

#include "serial/io_serial.h"
#include "support/callback_sink.h"
#include "support/pty_pair.h"

namespace kmiotest {

// The test keeps its own slave descriptor (PtyPair), to read back the line
// settings, which start cooked (canonical, echo, CR translation) so that the
// device must make them raw.

// Creates and opens a serial device the way KM_IO_Open does.
inline std::shared_ptr<kmio::IoDevice> openSerial(const std::string& locator, const std::string& options,
                                                  Sink& sink, std::uint32_t& result) {
    auto device = std::make_shared<kmio::IoSerial>(locator, options, &sink, &Sink::onReceive, &Sink::onError);
    result = device->open(device);
    return result == KM_IO_OK ? device : nullptr;
}

// The output rate of a terminal as termios2 reports it when set through
// BOTHER, else 0 (line_speed_readback.cpp).
std::uint32_t readBackLineSpeed(int fd);

}  // namespace kmiotest
