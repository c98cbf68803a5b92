#include "probe_frame.h"

#include <algorithm>
#include <array>

namespace ftdisim {
namespace {

constexpr std::array<std::uint8_t, 6> kProbePayload = {'x', 'D', 'q', 'P', 0, 0};
constexpr std::size_t kGarbageLength = 64;

void appendLe16(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

std::uint32_t readLe32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// Bytes that look random and never hold the start byte, so a reader finds no
// frame in them.
std::vector<std::uint8_t> garbage() {
    std::vector<std::uint8_t> bytes(kGarbageLength);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const auto b = static_cast<std::uint8_t>(i * 151 + 29);
        bytes[i] = b == kFrameStart ? 0x5A : b;
    }
    return bytes;
}

}  // namespace

std::uint32_t crc32(const std::uint8_t* data, std::size_t length) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320 : crc >> 1;
        }
    }
    return ~crc;
}

std::vector<std::uint8_t> encodeFrame(std::uint8_t type, const std::vector<std::uint8_t>& payload) {
    const std::size_t padding = (4 - payload.size() % 4) % 4;
    std::vector<std::uint8_t> frame{kFrameStart};
    appendLe16(frame, static_cast<std::uint16_t>(payload.size() + padding + 5));
    frame.push_back(type);
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.insert(frame.end(), padding, 0);
    const std::uint32_t crc = crc32(frame.data(), frame.size());
    appendLe16(frame, static_cast<std::uint16_t>(crc));
    appendLe16(frame, static_cast<std::uint16_t>(crc >> 16));
    return frame;
}

bool isProbeRequest(const std::uint8_t* data, std::size_t length) {
    constexpr std::size_t kHead = 4;  // start, length, type
    constexpr std::size_t kCrc = 4;
    if (length < kHead + kProbePayload.size() + kCrc || data[0] != kFrameStart ||
        data[3] != kProbeRequestType) {
        return false;
    }
    const std::size_t declared = static_cast<std::size_t>(data[1]) | static_cast<std::size_t>(data[2]) << 8;
    if (declared + 3 != length || (length - kCrc) % 4 != 0) {
        return false;
    }
    const std::uint8_t* payload = data + kHead;
    const std::uint8_t* crcAt = data + length - kCrc;
    return std::equal(kProbePayload.begin(), kProbePayload.end(), payload) &&
           std::all_of(payload + kProbePayload.size(), crcAt, [](std::uint8_t b) { return b == 0; }) &&
           readLe32(crcAt) == crc32(data, length - kCrc);
}

std::vector<std::uint8_t> probeReply(const ChipDescription& chip) {
    switch (chip.probe) {
        case ProbeMode::silent:
            return {};
        case ProbeMode::garbage:
            return garbage();
        case ProbeMode::bad128:
            return encodeFrame(kProbeEchoType, {'P', 'q', 'D', 'x', 0, 0});
        case ProbeMode::answer:
            break;
    }
    auto reply = encodeFrame(kProbeEchoType, {kProbePayload.begin(), kProbePayload.end()});
    if (chip.reply240) {
        std::vector<std::uint8_t> payload;
        appendLe16(payload, *chip.reply240);
        const auto frame = encodeFrame(kType240, payload);
        reply.insert(reply.end(), frame.begin(), frame.end());
    }
    std::vector<std::uint8_t> list;
    appendLe16(list, static_cast<std::uint16_t>(chip.protocols.size()));
    for (std::uint16_t id : chip.protocols) {
        appendLe16(list, id);
    }
    const auto frame = encodeFrame(kProtocolListType, list);
    reply.insert(reply.end(), frame.begin(), frame.end());
    return reply;
}

}  // namespace ftdisim
