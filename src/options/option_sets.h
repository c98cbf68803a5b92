#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kmio {

// One option set per operation. Each parse() reads its keys in a fixed order
// with their defaults, then applies the strict check; it throws OptionsError.

struct SerialOpenOptions {
    std::uint32_t baudrate = 0;
    bool xonxoff = false;
    static SerialOpenOptions parse(std::string_view text);
};

// The connect timeout in force is not here: the open reads it with
// rawUnsignedOption (option_list.h).
struct NetworkOpenOptions {
    std::uint32_t port = 0;
    std::vector<std::string> iface;
    std::uint32_t discoveryTimeout = 100;
    static NetworkOpenOptions parse(std::string_view text);
};

struct UsbOpenOptions {
    std::uint32_t rxTimeout = 1000;
    std::uint32_t txTimeout = 1000;
    std::uint32_t ftdiLatency = 2;
    std::uint32_t healthCheck = 250;
    std::optional<std::uint32_t> baudrate;
    std::vector<std::string> productName;
    std::optional<std::string> ftdiFlowControl;
    static UsbOpenOptions parse(std::string_view text);
};

struct UsbEnumerationOptions {
    bool forceRescan = false;
    bool findOnlyAvailable = true;
    std::vector<std::uint32_t> findProtocolId;
    std::vector<std::uint32_t> findUsbPid;
    std::vector<std::uint32_t> findUsbVid;
    std::vector<std::string> findUsbProductName;
    std::string locatorFormatUsb = "sn";
};

struct NetworkEnumerationOptions {
    bool forceRescan = false;
    std::vector<std::string> iface;
    std::uint32_t discoveryTimeout = 100;
    std::vector<std::string> findDeviceSn;
    std::vector<std::uint32_t> findDeviceType;
    bool findOnlyAvailable = true;
    std::vector<std::uint32_t> findProtocolId;
    std::string locatorFormatNetwork = "sn";
};

struct SerialEnumerationOptions {
    bool forceRescan = false;
    // "serial-usb-info": records of ports on a USB device carry its identity,
    // and the USB filters below apply to serial ports. Off, serial records
    // and the filters are what they always were.
    bool usbInfo = false;
    std::vector<std::uint32_t> findUsbPid;
    std::vector<std::uint32_t> findUsbVid;
    std::vector<std::string> findUsbProductName;
    std::vector<std::string> findDeviceSn;
};

// KM_IO_EnumerateDevices over all links (type 9999).
struct EnumerationOptions {
    std::vector<std::string> ifaceType;
    bool onlyLocator = false;
    UsbEnumerationOptions usb;
    NetworkEnumerationOptions network;
    SerialEnumerationOptions serial;
    // Keys whose "include-" option is true, from the USB, network and serial
    // device key lists in that order, each once.
    std::vector<std::string> include;

    // True when the link ("usb", "network", "serial") is to be enumerated: it
    // is named, "all" is named, or no "iface-type" was given at all.
    bool selects(std::string_view link) const;

    static EnumerationOptions parse(std::string_view text);
};

// KM_IO_EnumerateInterfaces.
struct InterfaceEnumerationOptions {
    std::vector<std::string> ifaceType;
    std::vector<std::string> include;
    // The key of the one "only-" option that is true, if any.
    std::optional<std::string> only;

    static InterfaceEnumerationOptions parse(std::string_view text);
};

// KM_IO_SetGlobalOptions. Presence is recorded so that a call that sets one
// key leaves the other setting as it was.
struct GlobalOptions {
    std::optional<std::string> locatorFormatNetwork;
    std::optional<std::vector<std::string>> discoveryIface;

    static GlobalOptions parse(std::string_view text);
};

}  // namespace kmio
