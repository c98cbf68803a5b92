#include "discovery/packet.h"

#include <algorithm>

#include "discovery/exceptions.h"

namespace kalometnd {

namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'P', 'D', 'N', 'K'};
constexpr std::size_t kSerialFieldOffset = 16;
constexpr std::size_t kSerialFieldSize = 64;
constexpr std::size_t kTokenOffset = 80;

void putU16(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value & 0xFF));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void putU32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<std::uint8_t>((value >> shift) & 0xFF));
    }
}

// Addresses travel first octet first, i.e. big-endian.
void putIpv4(std::vector<std::uint8_t>& out, std::uint32_t address) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<std::uint8_t>((address >> shift) & 0xFF));
    }
}

std::uint16_t getU16(std::span<const std::uint8_t> in, std::size_t at) {
    return static_cast<std::uint16_t>(in[at] | (in[at + 1] << 8));
}

std::uint32_t getU32(std::span<const std::uint8_t> in, std::size_t at) {
    return static_cast<std::uint32_t>(in[at]) | (static_cast<std::uint32_t>(in[at + 1]) << 8) |
           (static_cast<std::uint32_t>(in[at + 2]) << 16) | (static_cast<std::uint32_t>(in[at + 3]) << 24);
}

std::uint32_t getIpv4(std::span<const std::uint8_t> in, std::size_t at) {
    return (static_cast<std::uint32_t>(in[at]) << 24) | (static_cast<std::uint32_t>(in[at + 1]) << 16) |
           (static_cast<std::uint32_t>(in[at + 2]) << 8) | static_cast<std::uint32_t>(in[at + 3]);
}

// A length-prefixed text at `at`: L < 64 and L bytes plus the NUL must follow the length byte.
bool readCountedText(std::span<const std::uint8_t> data, std::size_t at, std::string& out) {
    const std::size_t length = data[at];
    if (length > kMaxInfoLength || data.size() - at - 1 < length + 1) {
        return false;
    }
    out.assign(data.begin() + static_cast<std::ptrdiff_t>(at + 1),
               data.begin() + static_cast<std::ptrdiff_t>(at + 1 + length));
    return true;
}

void putCountedText(std::vector<std::uint8_t>& out, std::string_view text) {
    if (text.size() > kMaxInfoLength) {
        throw InvalidArgumentException("Text longer than 63 characters");
    }
    out.push_back(static_cast<std::uint8_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(0);
}

}  // namespace

RawPacket encode(const Packet& packet) {
    if (packet.data.size() > kMaxPayloadSize) {
        throw InvalidArgumentException("Payload too long for one datagram");
    }
    const std::size_t total = (kHeaderSize + packet.data.size() + 3) / 4 * 4;
    RawPacket out;
    out.reserve(total);
    out.push_back(kStartByte);
    putU16(out, static_cast<std::uint16_t>(total - 3));
    out.push_back(static_cast<std::uint8_t>(packet.opcode));
    out.insert(out.end(), kMagic.begin(), kMagic.end());
    putU32(out, packet.version);
    putU32(out, packet.selector);
    const std::size_t serialLength = std::min(packet.serialNumber.size(), kMaxSerialNumberLength);
    out.insert(out.end(), packet.serialNumber.begin(),
               packet.serialNumber.begin() + static_cast<std::ptrdiff_t>(serialLength));
    out.resize(kSerialFieldOffset + kSerialFieldSize, 0);
    out.insert(out.end(), packet.token.begin(), packet.token.end());
    out.insert(out.end(), packet.data.begin(), packet.data.end());
    out.resize(total, 0);
    return out;
}

DecodeResult decode(std::span<const std::uint8_t> datagram, Packet& out) {
    if (datagram.size() < kHeaderSize || datagram.size() % 4 != 0) {
        return DecodeResult::Invalid;
    }
    if (datagram[0] != kStartByte) {
        return DecodeResult::Invalid;
    }
    if (getU16(datagram, 1) != datagram.size() - 3) {
        return DecodeResult::Invalid;
    }
    if (!std::equal(kMagic.begin(), kMagic.end(), datagram.begin() + 4)) {
        return DecodeResult::Invalid;
    }
    out.opcode = static_cast<OpCode>(datagram[3]);
    out.version = getU32(datagram, 8);
    out.selector = getU32(datagram, 12);
    const auto serialBegin = datagram.begin() + kSerialFieldOffset;
    const auto serialEnd = serialBegin + kMaxSerialNumberLength;
    out.serialNumber.assign(serialBegin, std::find(serialBegin, serialEnd, 0));
    std::copy_n(datagram.begin() + kTokenOffset, out.token.size(), out.token.begin());
    out.data.assign(datagram.begin() + kHeaderSize, datagram.end());
    return out.version <= 1 ? DecodeResult::Valid : DecodeResult::UnsupportedVersion;
}

bool readConfiguration(const Packet& packet, DeviceConfig& out) {
    switch (packet.opcode) {
        case OpCode::GetConfiguration:
        case OpCode::SetConfiguration:
        case OpCode::Configuration:
            break;
        default:
            return false;
    }
    if (packet.data.size() < 13) {
        return false;
    }
    out.dhcp = packet.data[0] != 0;
    out.ipAddress = getIpv4(packet.data, 1);
    out.gateway = getIpv4(packet.data, 5);
    out.subnetMask = getIpv4(packet.data, 9);
    return true;
}

bool readDeviceInfo(const Packet& packet, std::string& out) {
    if (packet.opcode != OpCode::SetDeviceInfo || packet.data.size() < 2) {
        return false;
    }
    return readCountedText(packet.data, 0, out);
}

bool readResultCode(const Packet& packet, ResultCode& out) {
    if (packet.opcode != OpCode::Result || packet.data.size() < 2) {
        return false;
    }
    out = static_cast<ResultCode>(getU16(packet.data, 0));
    return true;
}

bool readDiscoverPayload(const Packet& packet, DiscoverPayload& out) {
    if (packet.opcode != OpCode::DiscoverReply && packet.opcode != OpCode::DiscoverInform) {
        return false;
    }
    if (packet.data.size() < 6) {
        return false;
    }
    out.protocolId = packet.data[0];
    out.available = packet.data[1] != 0;
    out.port = getU16(packet.data, 2);
    if (!readCountedText(packet.data, 4, out.info)) {
        out.info.clear();
        return false;
    }
    return true;
}

std::vector<std::uint8_t> encodeConfiguration(const DeviceConfig& config) {
    std::vector<std::uint8_t> out;
    out.push_back(config.dhcp ? 1 : 0);
    putIpv4(out, config.ipAddress);
    putIpv4(out, config.gateway);
    putIpv4(out, config.subnetMask);
    return out;
}

std::vector<std::uint8_t> encodeDeviceInfo(std::string_view info) {
    std::vector<std::uint8_t> out;
    putCountedText(out, info);
    return out;
}

std::vector<std::uint8_t> encodeResultCode(ResultCode code) {
    std::vector<std::uint8_t> out;
    putU16(out, static_cast<std::uint16_t>(code));
    return out;
}

std::vector<std::uint8_t> encodeDiscoverPayload(const DiscoverPayload& payload) {
    std::vector<std::uint8_t> out;
    out.push_back(payload.protocolId);
    out.push_back(payload.available ? 1 : 0);
    putU16(out, payload.port);
    putCountedText(out, payload.info);
    return out;
}

Packet buildDiscoverRequest(std::uint32_t selector, std::string_view serialNumber, const Token& token) {
    Packet packet;
    packet.version = kProtocolVersion;
    packet.opcode = OpCode::DiscoverRequest;
    packet.selector = selector;
    packet.serialNumber = serialNumber;
    packet.token = token;
    return packet;
}

Packet buildDiscoverReply(const Token& requestToken, std::uint32_t selector, std::string_view serialNumber,
                          const DiscoverPayload& payload) {
    Packet packet = buildDiscoverRequest(selector, serialNumber, requestToken);
    packet.opcode = OpCode::DiscoverReply;
    packet.data = encodeDiscoverPayload(payload);
    return packet;
}

Packet buildDiscoverInform(std::uint32_t selector, std::string_view serialNumber,
                           const DiscoverPayload& payload) {
    Packet packet = buildDiscoverReply(Token{}, selector, serialNumber, payload);
    packet.opcode = OpCode::DiscoverInform;
    return packet;
}

}  // namespace kalometnd
