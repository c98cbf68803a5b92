#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "options/property_record.h"

namespace kmio {

class SerialPortCache;
class SerialPortScanner;
struct SerialEnumerationOptions;

// The serial link's enumeration, over a port cache (the process's, or a
// test's over a fake tree).

// Records ("iface-type", "locator") of the ports available at the last scan.
// With options.usbInfo, a port on a USB device also carries "usb-vid",
// "usb-pid" (decimal), "usb-desc" and "device-sn", and the USB filters apply.
// Records ("iface-type", "name", "serial-port") of every port, from a fresh
// scan, for enumerateSerialInterfaces.
// KM_IO_EnumerateDevices(3): every cached port as "serial:NAME", one per
// line, for listSerialLocators.
void enumerateSerialDevices(SerialPortCache& cache, const SerialEnumerationOptions& options,
                            RecordList& records);
void enumerateSerialInterfaces(const SerialPortScanner& scanner, RecordList& records);
std::uint32_t listSerialLocators(SerialPortCache& cache, std::string_view optionsText, char* buffer,
                                 std::size_t* ioSize);

}  // namespace kmio
