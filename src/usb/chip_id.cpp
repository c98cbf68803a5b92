#include "usb/chip_id.h"

#include <array>

#include "usb/d2xx_binding.h"

namespace kmio {

namespace {

constexpr std::uint32_t kChipIdMask = 0xA5F0F7D1;
constexpr std::uint16_t kErasedWord = 0xFFFF;

std::uint16_t swapBytes(std::uint16_t word) {
    return static_cast<std::uint16_t>((word >> 8) | (word << 8));
}

// Bit i of the input byte goes to bit kBitTarget[i] of the output byte.
constexpr std::array<int, 8> kBitTarget{1, 6, 0, 7, 3, 4, 2, 5};

std::uint32_t permuteByte(std::uint32_t byte) {
    std::uint32_t out = 0;
    for (int bit = 0; bit < 8; ++bit) {
        if (((byte >> bit) & 1U) != 0) {
            out |= 1U << kBitTarget[static_cast<std::size_t>(bit)];
        }
    }
    return out;
}

}  // namespace

std::uint32_t chipIdFromEepromWords(std::uint16_t word43, std::uint16_t word44) {
    const std::uint32_t joined = (std::uint32_t{swapBytes(word43)} << 16) | swapBytes(word44);
    std::uint32_t permuted = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        permuted |= permuteByte((joined >> shift) & 0xFFU) << shift;
    }
    return permuted ^ kChipIdMask;
}

d2xx::FT_STATUS readChipIdFromEeprom(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle,
                                     std::uint32_t& chipId) {
    std::uint16_t word43 = 0;
    std::uint16_t word44 = 0;
    if (const d2xx::FT_STATUS status = api.FT_ReadEE(handle, 0x43, &word43); status != d2xx::kOk) {
        return status;
    }
    if (const d2xx::FT_STATUS status = api.FT_ReadEE(handle, 0x44, &word44); status != d2xx::kOk) {
        return status;
    }
    if (word43 == kErasedWord && word44 == kErasedWord) {
        return d2xx::kNotSupported;
    }
    chipId = chipIdFromEepromWords(word43, word44);
    return d2xx::kOk;
}

}  // namespace kmio
