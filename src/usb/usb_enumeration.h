#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "options/option_sets.h"
#include "options/property_record.h"

namespace kmio {

// The USB link's enumeration through the FTDI driver.

// KM_IO_EnumerateDevices(1): the USB listing with its own option handling.
std::uint32_t listUsbDevices(std::string_view optionsText, char* buffer, std::size_t* ioSize);

// The USB section of the combined enumeration. Returns KM_IO_OK with no records
// when the driver library cannot be loaded.
std::uint32_t enumerateUsbDevices(const UsbEnumerationOptions& options, RecordList& records);

}  // namespace kmio
