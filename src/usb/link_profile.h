#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "usb/d2xx_types.h"

namespace kmio {

struct D2xxEntryPoints;

// How a device's link is configured, as its EEPROM user area says.
struct LinkProfile {
    std::uint32_t baudRate = 0;  // 0: leave the rate as it is
    std::uint16_t flowControl = d2xx::kFlowNone;
    bool synchronousFifo = false;
};

// The profile of a device. A user area of at least 5 bytes that begins with
// "KMIO" carries the profile number in its fifth byte (numbers other than 0,
// 1, 10, 11, 12 count as 255); any other user area is profile 0, which the
// device type and description decide:
//   1: 500000 baud, no flow control      10: 12000000 baud, RTS/CTS
//  11: synchronous FIFO                  12: 3000000 baud, no flow control
//   0: a high-speed type-6 chip is synchronous FIFO; otherwise the
//      product-name table: rows 1 and 4 as profile 1, row 2 as profile 10.
// Synchronous FIFO keeps the rate and uses RTS/CTS, the handshake the chip's
// FIFO mode is driven with. nullopt: not supported (profile 255, or profile 0
// with a description the table does not name).
std::optional<LinkProfile> deriveLinkProfile(std::span<const std::uint8_t> userArea,
                                             std::string_view description, std::uint32_t deviceType,
                                             bool highSpeed);

// Reads the whole EEPROM user area (FT_EE_UASize, then FT_EE_UARead).
// Returns the first failing driver status, else 0.
d2xx::FT_STATUS readUserArea(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle,
                             std::vector<std::uint8_t>& area);

// The rows of the product-name table (usbProductNames()), named by what a
// description in each row means for a device whose EEPROM names no profile.
enum class ProductNameRow {
    None = 0,               // in no row: no known link profile
    Serial500kProtocol146,  // 500000 baud; speaks protocol 146 without a probe
    Serial12M,              // 12000000 baud, RTS/CTS
    ProbeDetect,            // probed; on a dual-channel chip, answers the detect marker
    Serial500kProtocol147,  // 500000 baud; speaks protocol 147 without a probe
};

// The row whose text equals the description byte for byte.
ProductNameRow productNameRow(std::string_view description);

}  // namespace kmio
