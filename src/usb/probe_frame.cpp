#include "usb/probe_frame.h"

#include <array>

namespace kmio {

namespace {

using CrcTables = std::array<std::array<std::uint32_t, 256>, 4>;

// tables[0] is the classic byte-at-a-time table; tables[k][b] is the CRC
// contribution of byte b followed by k zero bytes, which lets four bytes be
// folded in with four look-ups.
CrcTables buildCrcTables() {
    constexpr std::uint32_t kPolynomial = 0xEDB88320;  // 0x04C11DB7 reflected
    CrcTables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1U) != 0 ? (crc >> 1) ^ kPolynomial : crc >> 1;
        }
        tables[0][byte] = crc;
    }
    for (std::size_t k = 1; k < tables.size(); ++k) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t previous = tables[k - 1][byte];
            tables[k][byte] = (previous >> 8) ^ tables[0][previous & 0xFFU];
        }
    }
    return tables;
}

const CrcTables& crcTables() {
    static const CrcTables tables = buildCrcTables();
    return tables;
}

void putLittleEndian(std::vector<std::uint8_t>& out, std::uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

std::uint32_t readLittleEndian32(std::span<const std::uint8_t> bytes) {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
}

std::size_t paddingFor(std::size_t payloadSize) {
    return (4 - payloadSize % 4) % 4;
}

}  // namespace

std::uint32_t crc32(std::span<const std::uint8_t> bytes) {
    const CrcTables& t = crcTables();
    std::uint32_t crc = 0xFFFFFFFF;
    std::size_t at = 0;
    for (; at + 4 <= bytes.size(); at += 4) {
        crc ^= readLittleEndian32(bytes.subspan(at, 4));
        crc = t[3][crc & 0xFFU] ^ t[2][(crc >> 8) & 0xFFU] ^ t[1][(crc >> 16) & 0xFFU] ^ t[0][crc >> 24];
    }
    for (; at < bytes.size(); ++at) {
        crc = t[0][(crc ^ bytes[at]) & 0xFFU] ^ (crc >> 8);
    }
    return ~crc;
}

std::vector<std::uint8_t> encodeProbeFrame(std::uint8_t type, std::span<const std::uint8_t> payload) {
    const std::size_t padding = paddingFor(payload.size());
    const std::size_t length = payload.size() + padding + probe_frame::kMinimumLength;
    std::vector<std::uint8_t> frame;
    frame.reserve(probe_frame::kHeadSize + length);
    frame.push_back(probe_frame::kStartByte);
    putLittleEndian(frame, static_cast<std::uint32_t>(length), 2);
    frame.push_back(type);
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.insert(frame.end(), padding, 0);
    putLittleEndian(frame, crc32(frame), 4);
    return frame;
}

std::optional<std::size_t> frameLengthFromHead(std::span<const std::uint8_t, probe_frame::kHeadSize> head) {
    if (head[0] != probe_frame::kStartByte) {
        return std::nullopt;
    }
    const std::size_t length = std::size_t{head[1]} | std::size_t{head[2]} << 8;
    // Payload and padding together fill whole 4-byte steps.
    if (length < probe_frame::kMinimumLength || (length - probe_frame::kMinimumLength) % 4 != 0) {
        return std::nullopt;
    }
    return length;
}

std::optional<ProbeFrame> decodeProbeFrame(std::span<const std::uint8_t, probe_frame::kHeadSize> head,
                                           std::span<const std::uint8_t> rest) {
    if (rest.size() < probe_frame::kMinimumLength) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> covered(head.begin(), head.end());
    covered.insert(covered.end(), rest.begin(), rest.end() - probe_frame::kChecksumSize);
    if (crc32(covered) != readLittleEndian32(rest.last(probe_frame::kChecksumSize))) {
        return std::nullopt;
    }
    ProbeFrame frame;
    frame.type = rest[0];
    frame.payload.assign(rest.begin() + 1, rest.end() - probe_frame::kChecksumSize);
    return frame;
}

std::optional<std::uint16_t> payloadWord(const ProbeFrame& frame, std::size_t offset) {
    if (offset + 2 > frame.payload.size()) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(frame.payload[offset] | frame.payload[offset + 1] << 8);
}

}  // namespace kmio
