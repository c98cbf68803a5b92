#pragma once

#include "interface/device_table.h"
#include "network/network_discovery.h"
#include "serial/serial_port_cache.h"
#include "usb/d2xx_binding.h"
#include "usb/usb_device_cache.h"

namespace kmio {

// Everything the library keeps for the whole process, in one place, the way
// libusb keeps a context: the open devices, the network discovery cache, the
// FTDI driver binding and the USB and serial list caches. The exported
// functions reach them through instance(); everything below the interface
// layer is handed the part it needs, so tests build their own parts.
//
// The one object is made on first use and never destroyed: at exit, receive
// threads of devices closed without waiting, discovery host threads and
// calls on other threads may still use any part, and tearing them down there
// could wait for a callback that never returns.
class Process {
public:
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // The only process-wide accessor in the library.
    static Process& instance();

    DeviceTable& devices() noexcept { return devices_; }
    NetworkDiscovery& discovery() noexcept { return discovery_; }
    D2xxBinding& driver() noexcept { return driver_; }
    UsbDeviceCache& usbDevices() noexcept { return usbDevices_; }
    SerialPortCache& serialPorts() noexcept { return serialPorts_; }

private:
    Process();
    ~Process() = default;

    // Declared in the order they depend on each other: the USB cache reads
    // through the binding; the table opens devices through the caches and
    // the discovery cache; the discovery cache raises its events through the
    // table. (Hotplug watchers, which read the caches and raise events
    // through the table, belong here too.)
    D2xxBinding driver_;
    UsbDeviceCache usbDevices_;
    SerialPortCache serialPorts_;
    DeviceTable devices_;
    NetworkDiscovery discovery_;
};

}  // namespace kmio
