#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "options/locator.h"
#include "options/option_sets.h"
#include "options/property_record.h"

namespace kmio {

// The network link's enumeration, over the process-wide discovery cache.

// Devices discovered on the "iface" interfaces, filtered by the find- options.
std::uint32_t enumerateNetworkDevices(const NetworkEnumerationOptions& options, RecordList& records);

// Records ("iface-type", "network-host", "network-subnet-mask", "name") of the
// machine's IPv4 interfaces; KM_IO_ERR_ENUMERATION_FAILED when unreadable.
std::uint32_t enumerateNetworkInterfaces(RecordList& records);

// Runs a step while the caller's own lock is held (KM_IO_SetGlobalOptions:
// the table mutex) and returns its result.
using LockedStep = std::function<std::uint32_t(const std::function<std::uint32_t()>& step)>;

// KM_IO_SetGlobalOptions: locator format of events and background discovery
// interfaces. Checks everything and starts the channels of new interfaces
// first, with no lock held, then puts the settings in force through
// underLock (directly when it is empty). KM_IO_ERR_BAD_OPTIONS leaves every
// setting as it was.
std::uint32_t applyGlobalDiscoveryOptions(const GlobalOptions& options, const LockedStep& underLock = {});

// Finds a network device by serial number for IoNetwork: first in the
// discovery cache, then by a forced discovery on the "iface" interfaces.
// KM_IO_OK with found filled; KM_IO_ERR_BAD_OPTIONS for an unparsable "iface"
// list; KM_IO_ERR_NOT_FOUND for an empty interface set or no such device.
std::uint32_t resolveNetworkSerialNumber(const std::string& serialNumber, const NetworkOpenOptions& options,
                                         DiscoveredAddress& found);

}  // namespace kmio
