#pragma once

#include <cstdint>

#include "usb/d2xx_types.h"

namespace kmio {

struct D2xxEntryPoints;

// The chip id of an FT232R or FT245R as the chip-ID library reports it,
// derived from EEPROM words 0x43 and 0x44: both words byte-swapped and
// joined (0x43 high), the bits of every byte permuted, then XOR 0xA5F0F7D1.
std::uint32_t chipIdFromEepromWords(std::uint16_t word43, std::uint16_t word44);

// The built-in stand-in for FTID_GetChipIDFromHandle: reads the two words
// with FT_ReadEE. Returns the driver's status when a read fails, and
// FT_NOT_SUPPORTED when both words read 0xFFFF, which is an erased EEPROM
// area, not an id (chips other than the R series have no id there).
d2xx::FT_STATUS readChipIdFromEeprom(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle,
                                     std::uint32_t& chipId);

}  // namespace kmio
