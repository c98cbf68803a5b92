#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "usb/d2xx_types.h"

namespace kmio {

struct D2xxEntryPoints;
struct UsbDeviceEntry;

// What the protocol-id query learned about one device.
struct ProbeOutcome {
    // KM_IO_OK; KM_IO_ERR_BAD_OPTIONS when the device's link profile is not
    // supported; KM_IO_ERR_OPEN_FAILED when a driver call failed or the
    // device gave no valid reply. Only the probe's own result: a device whose
    // probe failed is still listed, without protocol ids.
    std::uint32_t result = 0;
    std::vector<std::uint16_t> protocolIds;  // in the order learned, each once
};

// How long the device has to answer, for the whole exchange from the request
// on. A device that says nothing costs about this long; so does one that
// sends bytes that never form a frame.
inline constexpr std::chrono::milliseconds kProbeReplyLimit{250};

// Asks the device at position `index` of the driver's list which protocols
// it speaks. Devices named by product-name rows 1 and 4 are known to speak
// 146 and 147 and are not opened. Others are opened by index, configured
// from their EEPROM link profile (baud rate; synchronous FIFO reset and
// mode; USB transfer sizes 65536/65536; 8N1; flow control; time-outs
// 500/100 ms; latency 2 ms; purge both ways) and sent the query frame
// (type 0, "xDqP" and a 16-bit 0). Frames are then read until the reply
// (type 128, echoing the query's six bytes) and after it until the
// protocol-id list (type 133: 16-bit count, then that many 16-bit ids), or
// until the reply limit runs out. Frames with a bad start byte, an
// impossible length or a wrong checksum are discarded. A type-240 frame
// whose first 16-bit value is 32766, from a dual-channel high-speed chip
// named by product-name row 3, adds protocol 180; a type-240 frame shorter
// than 2 bytes fails the probe. The device is closed before returning.
// `description` is the device's description without a channel suffix.
ProbeOutcome probeProtocolIds(const D2xxEntryPoints& api, int index, const UsbDeviceEntry& entry,
                              std::string_view description,
                              std::chrono::milliseconds replyLimit = kProbeReplyLimit);

}  // namespace kmio
