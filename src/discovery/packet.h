#pragma once

// The ND datagram: one UDP datagram carries one packet, a 96-byte header and
// an opcode-specific payload, padded with zeros to a multiple of 4 bytes.
//
//   offset  size  field
//        0     1  start byte 0xC2
//        1     2  u16 LE: datagram size - 3
//        3     1  opcode
//        4     4  magic "PDNK"
//        8     4  u32 LE version (1 is sent)
//       12     4  u32 LE selector
//       16    64  serial number, NUL-terminated and NUL-padded (at most 63 chars)
//       80    16  token (version-4 UUID; a reply carries its request's token)
//       96     n  payload, then 0..3 zero bytes
//
// Multi-byte fields are little-endian; IPv4 addresses inside payloads are
// four bytes, first octet first. In this component every IPv4 address held in
// a std::uint32_t is in host order (10.0.0.5 == 0x0A000005).
//
// Both sides of the protocol use this header: the host (host.h) and device
// simulators. A device answers a Discover Request with
//   encode(buildDiscoverReply(request.token, selector, serial, payload))
// and announces itself with encode(buildDiscoverInform(selector, serial, payload)).

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kalometnd {

inline constexpr std::uint16_t kBroadcastPort = 65111;
inline constexpr std::uint16_t kMulticastPort = 65110;
inline constexpr std::uint32_t kMulticastGroup = 0xEF010115;  // 239.1.1.21, host order

inline constexpr std::size_t kHeaderSize = 96;
inline constexpr std::uint8_t kStartByte = 0xC2;
inline constexpr std::uint32_t kProtocolVersion = 1;
inline constexpr std::size_t kMaxSerialNumberLength = 63;
inline constexpr std::size_t kMaxInfoLength = 63;
// The largest payload whose padded datagram still fits the 16-bit length field.
inline constexpr std::size_t kMaxPayloadSize = 65532 - kHeaderSize;

// Requests have the top bit clear, replies set.
enum class OpCode : std::uint8_t {
    GetConfiguration = 1,
    SetConfiguration = 2,
    ResetConfiguration = 3,
    SetDeviceInfo = 4,
    DiscoverRequest = 0x21,
    Result = 0x81,
    Configuration = 0x82,
    DiscoverReply = 0xA1,
    DiscoverInform = 0xA2,
};

// "Get Configuration", ..., "Discover Inform"; "Unknown" for any other value.
std::string_view opCodeName(OpCode opcode);

// Result codes shared with the devices' command protocol; the gaps are real.
enum class ResultCode : std::uint16_t {
    Success = 0,
    UnknownCommand = 1,
    InvalidParameter = 19,
    PermissionDenied = 31,
    ProtocolVersionNotSupported = 32,
    CommandNotProcessable = 37,
    FeatureNotSupported = 0x7FFD,
    FeatureNotImplemented = 0x7FFE,
    Other = 0x7FFF,
};

// "Success", "UnknownCommand", ...; "Unknown" for any other value.
std::string_view resultCodeName(ResultCode code);

// 16-byte request token; text form in tokenText().
using Token = std::array<std::uint8_t, 16>;

// Upper-case UUID text of the bytes in stored order: "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX".
std::string tokenText(const Token& token);

// One decoded (or to-be-encoded) datagram.
struct Packet {
    std::uint32_t version = kProtocolVersion;
    OpCode opcode = OpCode::DiscoverRequest;
    std::uint32_t selector = 0;
    std::string serialNumber;
    Token token{};
    // Decoded: every byte from offset 96 to the end, the sender's padding included.
    // Encoded: the payload, padded by encode().
    std::vector<std::uint8_t> data;
};

// A datagram as bytes.
using RawPacket = std::vector<std::uint8_t>;

enum class DecodeResult { Invalid = 0, Valid = 1, UnsupportedVersion = 2 };

// Packet to datagram. The serial number is cut to 63 characters. Throws
// InvalidArgumentException when data is longer than kMaxPayloadSize.
RawPacket encode(const Packet& packet);

// Datagram to packet. Invalid leaves `out` unusable; UnsupportedVersion
// (version 2 or more) fills it all the same.
DecodeResult decode(std::span<const std::uint8_t> datagram, Packet& out);

// Network configuration carried by Get/Set Configuration and Configuration.
// On the wire: DHCP byte, IP address, gateway, subnet mask (13 bytes).
struct DeviceConfig {
    std::uint32_t ipAddress = 0;
    std::uint32_t subnetMask = 0;
    std::uint32_t gateway = 0;
    bool dhcp = false;

    bool operator==(const DeviceConfig&) const = default;
};

// What a device tells in a Discover Reply or Inform.
// On the wire: protocol id, available, u16 LE port, info length L (< 64), L
// bytes of text, one NUL (at least 6 bytes).
struct DiscoverPayload {
    std::uint8_t protocolId = 0;
    bool available = false;
    std::uint16_t port = 0;
    std::string info;

    bool operator==(const DiscoverPayload&) const = default;
};

// Payload readers. Each returns false when the packet's opcode is not one of
// its own or the payload is too short or malformed; padding after the
// payload is ignored.

// Opcodes 1, 2 and 130.
bool readConfiguration(const Packet& packet, DeviceConfig& out);
// Opcode 4.
bool readDeviceInfo(const Packet& packet, std::string& out);
// Opcode 129.
bool readResultCode(const Packet& packet, ResultCode& out);
// Opcodes 161 and 162. When the payload has its 6 bytes but a malformed info
// text (length 64 or more, or no NUL after it), protocol id, available and
// port are still filled, info is cleared, and the result is false.
bool readDiscoverPayload(const Packet& packet, DiscoverPayload& out);

// Payload writers, the inverse of the readers. Texts longer than 63
// characters throw InvalidArgumentException.
std::vector<std::uint8_t> encodeConfiguration(const DeviceConfig& config);
std::vector<std::uint8_t> encodeDeviceInfo(std::string_view info);
std::vector<std::uint8_t> encodeResultCode(ResultCode code);
std::vector<std::uint8_t> encodeDiscoverPayload(const DiscoverPayload& payload);

// Version 1, opcode Discover Request, empty payload.
Packet buildDiscoverRequest(std::uint32_t selector, std::string_view serialNumber, const Token& token);
// A device's answer to a Discover Request: the request's token, the device's values.
Packet buildDiscoverReply(const Token& requestToken, std::uint32_t selector, std::string_view serialNumber,
                          const DiscoverPayload& payload);
// An unsolicited announcement (zero token).
Packet buildDiscoverInform(std::uint32_t selector, std::string_view serialNumber,
                           const DiscoverPayload& payload);

// "KM_ND_Packet { OpCode: ..., Version: 1, SerialNumber: \"...\", Token: ... }"
// with the payload's fields for the opcodes that have one.
std::string packetText(const Packet& packet);

// "KM_ND_RawPacket { size: N, data: c2 00 ... }": bytes in hex, an extra blank
// before every group of eight.
std::string rawPacketText(std::span<const std::uint8_t> datagram);

}  // namespace kalometnd
