#include "devices/serial_enumeration.h"

#include "kmio/kmio.h"
#include "options/text_output.h"

namespace kmio {

// Placeholder until the serial link lands: no ports.
std::uint32_t enumerateSerialDevices(bool, RecordList&) { return KM_IO_OK; }
std::uint32_t enumerateSerialInterfaces(RecordList&) { return KM_IO_OK; }
std::uint32_t listSerialLocators(std::string_view, char* buffer, std::size_t* ioSize) {
    return copyTextOut("", buffer, ioSize);
}

}  // namespace kmio
