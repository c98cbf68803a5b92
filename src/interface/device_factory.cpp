#include "interface/device_factory.h"

#include "network/io_network.h"
#include "network/network_serial_lookup.h"
#include "serial/io_serial.h"
#include "usb/io_ftdi.h"

namespace kmio {

std::shared_ptr<IoDevice> makeDevice(const DeviceLinks& links, std::uint32_t interfaceType,
                                     const std::string& locator, const std::string& options,
                                     void* userContext, KM_IO_ReceiveCallback onReceive,
                                     KM_IO_LinkErrorCallback onError) {
    if (interfaceType == KM_IO_IFACE_SERIAL) {
        return std::make_shared<IoSerial>(locator, options, userContext, onReceive, onError);
    }
    if (interfaceType == KM_IO_IFACE_NETWORK) {
        return std::make_shared<IoNetwork>(
            locator, options, userContext, onReceive, onError,
            [&discovery = links.discovery](const std::string& serialNumber,
                                           const NetworkOpenOptions& openOptions, DiscoveredAddress& found) {
                return resolveNetworkSerialNumber(discovery, serialNumber, openOptions, found);
            });
    }
    if (interfaceType == KM_IO_IFACE_USB) {
        return std::make_shared<IoFtdi>(locator, options, userContext, onReceive, onError, links.usbDevices);
    }
    return nullptr;
}

}  // namespace kmio
