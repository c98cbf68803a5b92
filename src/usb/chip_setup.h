#pragma once

#include <cstdint>

#include "usb/d2xx_binding.h"

namespace kmio {

// What the two chip configurations share: the probe's, before it asks a
// device for its protocol ids, and the open's. Each keeps its own order of
// driver calls; these are the values and the one step they have in common.

// USB transfer size for both directions (FT_SetUSBParameters).
constexpr std::uint32_t kUsbTransferSize = 65536;

// Puts the chip into synchronous FIFO mode: resets the bit mode, gives the
// chip 10 ms to settle, then selects synchronous FIFO on all eight lines.
// True when both driver calls succeed.
bool enterSynchronousFifo(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle);

}  // namespace kmio
