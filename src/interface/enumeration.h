#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kmio {

class Process;
class SerialPortCache;

// The enumeration entry points behind the exported functions. Each returns a
// KM_IO_* code: what the back-ends throw becomes one through
// resultOf(OperationKind::Enumeration), so option errors give
// KM_IO_ERR_BAD_OPTIONS and other failures KM_IO_ERR_ENUMERATION_FAILED.
// They list through the process's caches and discovery.

// True for the types KM_IO_EnumerateDevices lists on their own (USB, serial).
bool canEnumerateDevices(std::uint32_t interfaceType) noexcept;

// KM_IO_EnumerateDevices: USB, serial, or the combined listing (9999).
std::uint32_t enumerateDevices(Process& process, std::uint32_t interfaceType, std::string_view options,
                               char* buffer, std::size_t* ioSize);

// KM_IO_EnumerateInterfaces: network interfaces, then serial ports.
std::uint32_t enumerateInterfaces(SerialPortCache& serialPorts, std::string_view options, char* buffer,
                                  std::size_t* ioSize);

}  // namespace kmio
