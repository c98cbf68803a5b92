#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "interface/event_record.h"

namespace kmio {

// KM_IO_GetErrorEventData: the message under the out-buffer convention, and
// the code only when the message was copied. KM_IO_ERR_WRONG_EVENT_TYPE for
// anything but an error event.
std::uint32_t readErrorEventData(const KM_IO_Event& event, std::uint32_t* code, char* buffer,
                                 std::size_t* ioSize);

// KM_IO_GetDiscoveryEventData: the device record as text, or only its locator
// with "only-locator". Unknown keys are ignored. A bad "only-locator" literal
// throws std::invalid_argument("Invalid boolean literal") to the caller, out
// of the exported function: one of the two exceptions the public header
// documents as leaving the library (KM_IO_GetDiscoveryEventData), so it is
// not turned into a code.
std::uint32_t readDiscoveryEventData(const KM_IO_Event& event, std::string_view options, char* buffer,
                                     std::size_t* ioSize);

}  // namespace kmio
