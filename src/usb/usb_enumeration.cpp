#include "usb/usb_enumeration.h"

#include "kmio/kmio.h"

namespace kmio {

// The USB link is not built yet: its own listing reports the driver as
// unusable, and the combined listing contributes nothing.
std::uint32_t listUsbDevices(std::string_view, char*, std::size_t* ioSize) {
    (void)ioSize;
    return KM_IO_ERR_DRIVER_UNAVAILABLE;
}
std::uint32_t enumerateUsbDevices(const UsbEnumerationOptions&, RecordList&) { return KM_IO_OK; }

}  // namespace kmio
