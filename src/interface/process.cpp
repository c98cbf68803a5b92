#include "interface/process.h"

#include <memory>

#include "discovery/connection.h"
#include "interface/device_factory.h"
#include "platform/steady_clock.h"
#include "serial/serial_port_scanner.h"
#include "usb/d2xx_library_names.h"

namespace kmio {

Process::Process()
    : driver_(kD2xxDriverLibraryName, kD2xxChipIdLibraryName, kD2xxChipIdLibraryRequired),
      usbDevices_(driver_),
      serialPorts_(std::make_shared<const SerialPortScanner>()),
      devices_([this](std::uint32_t interfaceType, const std::string& locator, const std::string& options,
                      void* userContext, KM_IO_ReceiveCallback onReceive, KM_IO_LinkErrorCallback onError) {
          return makeDevice(DeviceLinks{usbDevices_, discovery_}, interfaceType, locator, options,
                            userContext, onReceive, onError);
      }),
      discovery_(kalometnd::createConnection, steadyClock(),
                 [this](std::uint32_t type, const PropertyRecord& properties) {
                     devices_.raiseEvent(type, properties);
                 }) {}

Process& Process::instance() {
    // Left alive at exit on purpose (see the header).
    static Process* const process = new Process();
    return *process;
}

}  // namespace kmio
