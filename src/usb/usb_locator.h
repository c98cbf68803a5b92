#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kmio {

// How a "usb:" locator names the device: "usb:sn:SERIAL", "usb:id:CHIPID" or
// "usb:N", the N-th (from 0) device not open by any process.
struct UsbDeviceChoice {
    enum class By { SerialNumber, ChipId, Position } by = By::SerialNumber;
    std::string text;  // serial number, chip id or position as written
    std::uint64_t position = 0;
};

// nullopt when the locator has none of the three forms.
std::optional<UsbDeviceChoice> parseUsbLocator(std::string_view locator);

// The serial number behind a chip id, from the older listing's lines
// "usb:id:ID:sn:SERIAL". KM_IO_ERR_NOT_FOUND when no line holds the id,
// KM_IO_ERR_ENUMERATION_FAILED when the matching line has no serial number.
std::uint32_t serialNumberOfChipId(std::string_view listing, std::string_view chipId, std::string& serial);

}  // namespace kmio
