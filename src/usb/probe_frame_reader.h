#pragma once

#include <chrono>

#include "usb/d2xx_types.h"
#include "usb/probe_frame.h"

namespace kmio {

struct D2xxEntryPoints;

// Reads probe frames from an open chip until a deadline. A read waits,
// polling FT_GetStatus, until the whole count is queued, so that the
// deadline holds even though the driver's own read time-out is longer.
// Bytes that do not start a frame are dropped three at a time (a head's
// worth); a frame with a wrong checksum is dropped whole.
class ProbeFrameReader {
public:
    enum class Result { Done, TimedOut, Failed };

    ProbeFrameReader(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle,
                     std::chrono::steady_clock::time_point deadline)
        : api_(api), handle_(handle), deadline_(deadline) {}

    // The next valid frame; Failed when a driver call fails or reports more
    // bytes read than asked for.
    Result next(ProbeFrame& frame);

private:
    Result readExactly(std::uint8_t* into, std::size_t count);

    const D2xxEntryPoints& api_;
    d2xx::FT_HANDLE handle_;
    std::chrono::steady_clock::time_point deadline_;
};

}  // namespace kmio
