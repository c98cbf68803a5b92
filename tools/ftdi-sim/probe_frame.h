#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "chip_description.h"

namespace ftdisim {

// Frames of the protocol-id probe: 0xA4, a 16-bit length L (type byte to the
// end of the checksum), the type, the payload, zero padding so that the
// checksum starts at a multiple of 4, and the CRC-32 of every byte before it.
// Multi-byte fields are little-endian.
inline constexpr std::uint8_t kFrameStart = 0xA4;
inline constexpr std::uint8_t kProbeRequestType = 0;
inline constexpr std::uint8_t kProbeEchoType = 128;
inline constexpr std::uint8_t kProtocolListType = 133;
inline constexpr std::uint8_t kType240 = 240;

// CRC-32 (IEEE 802.3, reflected, initial value all ones, final complement),
// computed bit by bit so that it checks the library's table-driven one
// independently.
std::uint32_t crc32(const std::uint8_t* data, std::size_t length);

std::vector<std::uint8_t> encodeFrame(std::uint8_t type, const std::vector<std::uint8_t>& payload);

// True when the bytes are exactly one probe request: a type-0 frame with a
// valid checksum whose payload is "xDqP" and a 16-bit zero.
bool isProbeRequest(const std::uint8_t* data, std::size_t length);

// The bytes a chip queues in answer to a probe request.
std::vector<std::uint8_t> probeReply(const ChipDescription& chip);

}  // namespace ftdisim
