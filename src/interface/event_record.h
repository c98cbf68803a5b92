#pragma once

#include <cstdint>
#include <string>

#include "options/property_record.h"

// The record behind the opaque KM_IO_Event of the public header. It lives on
// the stack of the thread that raises the event and is valid only during the
// event callback.
struct KM_IO_Event {
    std::uint32_t type = 0;           // KM_IO_EVENT_*
    std::uint32_t code = 0;           // error events: the error code
    std::string message;              // error events: the error text
    std::uint32_t interfaceType = 0;  // KM_IO_IFACE_NETWORK for discovery events
    kmio::PropertyRecord properties;  // discovery events: the device's record
};
