#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kmio {

// The frames of the protocol-id query. All fields little-endian:
//
//   0xA4 | length L (16 bits) | type (8 bits) | payload | zero padding | CRC-32
//
// L counts the bytes from the type byte to the end of the checksum; the
// padding makes the checksum start at a multiple of 4 from the start byte.
// The CRC-32 (IEEE 802.3, reflected, initial value and final complement all
// ones) covers every byte before it.
namespace probe_frame {

inline constexpr std::uint8_t kStartByte = 0xA4;
inline constexpr std::size_t kHeadSize = 3;  // start byte and L
inline constexpr std::size_t kChecksumSize = 4;
// The smallest L: the type byte and the checksum.
inline constexpr std::size_t kMinimumLength = 5;

inline constexpr std::uint8_t kTypeRequest = 0;
inline constexpr std::uint8_t kTypeReply = 128;
inline constexpr std::uint8_t kTypeProtocolIds = 133;
inline constexpr std::uint8_t kTypeStatus = 240;

}  // namespace probe_frame

// CRC-32 as the frames use it. The table is built once, at the first call;
// the bytes are folded in four at a time.
std::uint32_t crc32(std::span<const std::uint8_t> bytes);

// A whole frame of the given type around the payload.
std::vector<std::uint8_t> encodeProbeFrame(std::uint8_t type, std::span<const std::uint8_t> payload);

struct ProbeFrame {
    std::uint8_t type = 0;
    // The bytes between the type byte and the checksum: the payload and its
    // padding, which cannot be told apart on the wire.
    std::vector<std::uint8_t> payload;
};

// The length L in a frame head, or nullopt when the head does not start with
// the start byte or L cannot be a frame's length (below 5, or a padding that
// would not end on a multiple of 4).
std::optional<std::size_t> frameLengthFromHead(std::span<const std::uint8_t, probe_frame::kHeadSize> head);

// Checks the rest of a frame (the L bytes after its head) against the
// checksum and splits it; nullopt when the checksum does not match.
std::optional<ProbeFrame> decodeProbeFrame(std::span<const std::uint8_t, probe_frame::kHeadSize> head,
                                           std::span<const std::uint8_t> rest);

// Little-endian 16-bit value at an offset of the payload; nullopt past its end.
std::optional<std::uint16_t> payloadWord(const ProbeFrame& frame, std::size_t offset);

}  // namespace kmio
