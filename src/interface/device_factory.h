#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "link/io_device.h"

namespace kmio {

class NetworkDiscovery;
class UsbDeviceCache;

// What opening a device may need besides its locator and options: USB opens
// go through the driver's device list cache (and its mutex), "network:sn:"
// opens look the serial number up in the discovery cache.
struct DeviceLinks {
    UsbDeviceCache& usbDevices;
    NetworkDiscovery& discovery;
};

// Creates the device object for an interface type (1 USB, 2 network, 3
// serial), constructed but not opened. Returns null for a link this build
// cannot provide; the table turns that into KM_IO_ERR_OPEN_FAILED.
std::shared_ptr<IoDevice> makeDevice(const DeviceLinks& links, std::uint32_t interfaceType,
                                     const std::string& locator, const std::string& options,
                                     void* userContext, KM_IO_ReceiveCallback onReceive,
                                     KM_IO_LinkErrorCallback onError);

}  // namespace kmio
