#include "chip.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "probe_frame.h"

namespace ftdisim {
namespace {

constexpr std::uint64_t kStreamStep = 64 * 1024;
constexpr std::uint32_t kChipIdWordA = 0x43;
constexpr std::uint32_t kChipIdWordB = 0x44;

}  // namespace

Chip::Chip(ChipDescription description, std::uint32_t location)
    : description_(std::move(description)),
      location_(location),
      userArea_(description_.userArea),
      echo_(description_.echo) {}

void Chip::startStream(std::uint64_t bytes) {
    streamSent_ = 0;
    streamLength_ = bytes;
    refillStream();
}

bool Chip::refillStream() {
    if (received_.size() > 0 || streamSent_ == streamLength_) {
        return false;
    }
    const std::uint64_t step = std::min(kStreamStep, streamLength_ - streamSent_);
    std::vector<std::uint8_t> bytes(step);
    auto value = static_cast<std::uint8_t>(streamSent_ % 251);
    for (auto& byte : bytes) {
        byte = value;
        value = value == 250 ? 0 : value + 1;
    }
    streamSent_ += step;
    received_.append(bytes.data(), bytes.size());
    return true;
}

bool Chip::hostWrote(const std::uint8_t* data, std::size_t length) {
    if (isProbeRequest(data, length)) {
        const auto reply = probeReply(description_);
        received_.append(reply.data(), reply.size());
        return !reply.empty();
    }
    if (!echo_) {
        written_.append(data, length);
        return false;
    }
    received_.append(data, length);
    return length > 0;
}

std::uint16_t Chip::eepromWord(std::uint32_t offset) const {
    if (offset == kChipIdWordA && description_.ee43) {
        return *description_.ee43;
    }
    if (offset == kChipIdWordB && description_.ee44) {
        return *description_.ee44;
    }
    return 0xFFFF;
}

}  // namespace ftdisim
