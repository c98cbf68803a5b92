#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kmio {

class DeviceTable;

// The enumeration entry points behind the exported functions. Each returns a
// KM_IO_* code: option errors become KM_IO_ERR_BAD_OPTIONS and failures inside
// the back-ends KM_IO_ERR_ENUMERATION_FAILED, so nothing escapes except the
// re-entry error of the table mutex (setGlobalOptions from the event callback).

// True for the types KM_IO_EnumerateDevices lists on their own (USB, serial).
bool canEnumerateDevices(std::uint32_t interfaceType) noexcept;

// KM_IO_EnumerateDevices: USB, serial, or the combined listing (9999).
std::uint32_t enumerateDevices(std::uint32_t interfaceType, std::string_view options, char* buffer,
                               std::size_t* ioSize);

// KM_IO_EnumerateInterfaces: network interfaces, then serial ports.
std::uint32_t enumerateInterfaces(std::string_view options, char* buffer, std::size_t* ioSize);

// KM_IO_SetGlobalOptions: parses and applies the options with the table mutex
// held, so that it never overlaps an event callback.
std::uint32_t setGlobalOptions(DeviceTable& table, std::string_view options);

}  // namespace kmio
