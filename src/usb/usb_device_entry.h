#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "usb/d2xx_types.h"

namespace kmio {

struct D2xxEntryPoints;

// One device of the driver's list, with what a scan learns about it.
struct UsbDeviceEntry {
    std::uint32_t flags = 0;
    std::uint32_t type = 0;
    std::uint32_t id = 0;  // vendor id in the high 16 bits, product id in the low 16
    std::uint32_t locationId = 0;
    std::string serialNumber;
    std::string description;

    std::uint32_t chipId = 0;  // 0: unknown
    bool chipIdRead = false;   // the chip id was asked for in this scan
    std::vector<std::uint16_t> protocolIds;

    bool opened() const noexcept { return (flags & d2xx::kFlagOpened) != 0; }
    bool highSpeed() const noexcept { return (flags & d2xx::kFlagHighSpeed) != 0; }
    // A high-speed dual-channel chip shows up once per channel; its
    // descriptions end in " A" and " B", its serial numbers in the letter.
    bool dualChannel() const noexcept { return highSpeed() && type == d2xx::kDevice2232H; }
    std::uint16_t vendorId() const noexcept { return static_cast<std::uint16_t>(id >> 16); }
    std::uint16_t productId() const noexcept { return static_cast<std::uint16_t>(id & 0xFFFFU); }

    // The description a device is known by: for a dual-channel chip the
    // channel-A description without its " A", and nullopt for every other
    // channel (only channel A is a device). Others: the description itself.
    std::optional<std::string> deviceDescription() const;

    // The serial number a device is known by: a dual-channel chip's without
    // its channel letter.
    std::string deviceSerialNumber() const;
};

// Builds the driver's list and reads it (FT_CreateDeviceInfoList, then
// FT_GetDeviceInfoList). Returns the first failing driver status, else 0.
d2xx::FT_STATUS readDeviceList(const D2xxEntryPoints& api, std::vector<UsbDeviceEntry>& entries);

}  // namespace kmio
