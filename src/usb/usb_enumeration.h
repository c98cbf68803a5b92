#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "options/option_sets.h"
#include "options/property_record.h"

namespace kmio {

class UsbDeviceCache;

// The USB link's enumerations, over the driver's device list cache. Both
// take the USB mutex for their whole run. The library hands in the process's
// cache; tests their own over a binding and a clock of their choice.

// KM_IO_EnumerateDevices(1): the older listing. The option text is lines of
// "product-name NAME" (repeatable), "usb-vid N" and "usb-pid N" (repeatable;
// unsigned decimal), and the flags "include-id", "include-usb-vid",
// "include-usb-pid", "include-ds", "include-sn", "force-rescan", each set
// when its name appears anywhere in the text. Lists only available devices,
// one line each: "usb", then ":id:" CHIPID, ":usb-vid:" VID, ":usb-pid:"
// PID, ":ds:" DESCRIPTION, ":sn:" SERIAL for the flags set, in that order;
// lines joined by '\n'. KM_IO_ERR_DRIVER_UNAVAILABLE before anything else
// when the driver cannot be loaded; KM_IO_ERR_ENUMERATION_FAILED when the
// driver's list cannot be read; KM_IO_ERR_BUFFER_TOO_SMALL as usual.
// Throws std::invalid_argument or std::out_of_range for a number that does
// not convert (the caller's bad-options case).
std::uint32_t listUsbDevices(std::string_view optionsText, char* buffer, std::size_t* ioSize,
                             UsbDeviceCache& cache);

// The older listing's text, for a caller that already holds the USB mutex
// and has loaded the driver (the open path of "usb:id:" locators).
std::uint32_t olderUsbListLocked(std::string_view optionsText, UsbDeviceCache& cache, std::string& text);

// The USB section of the combined enumeration: one record per device and
// protocol id. KM_IO_ERR_BAD_OPTIONS for a "locator-format-usb" other than
// "sn" or "id" (before anything is scanned); KM_IO_OK with no records when
// the driver library cannot be loaded; KM_IO_ERR_ENUMERATION_FAILED when
// the driver's list cannot be read.
std::uint32_t enumerateUsbDevices(const UsbEnumerationOptions& options, RecordList& records,
                                  UsbDeviceCache& cache);

}  // namespace kmio
