#include "serial/serial_enumeration.h"
#include "options/list_filter.h"
#include "options/option_list.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "kmio/kmio.h"
#include "options/option_sets.h"
#include "options/text_output.h"
#include "serial/serial_port_cache.h"

namespace kmio {

namespace {

// A port passes the USB filters when each non-empty one names its adapter's
// value; a port without a USB adapter passes only when all are empty.
bool passesUsbFilters(const SerialEnumerationOptions& options, const std::optional<UsbAdapterIdentity>& usb) {
    if (!usb) {
        return options.findUsbVid.empty() && options.findUsbPid.empty() &&
               options.findUsbProductName.empty() && options.findDeviceSn.empty();
    }
    return admits(options.findUsbVid, std::uint32_t{usb->vendorId}) &&
           admits(options.findUsbPid, std::uint32_t{usb->productId}) &&
           admits(options.findUsbProductName, usb->product) &&
           admits(options.findDeviceSn, usb->serialNumber);
}

}  // namespace

void enumerateSerialDevices(SerialPortCache& cache, const SerialEnumerationOptions& options,
                            RecordList& records) {
    cache.refresh(options.forceRescan);
    // Ports that someone else held at the last scan cannot be opened, so they
    // are not offered as devices.
    for (const auto& port : cache.ports()) {
        if (!port.available || (options.usbInfo && !passesUsbFilters(options, port.usb))) {
            continue;
        }
        PropertyRecord record;
        record.set("iface-type", "serial");
        record.set("locator", "serial:" + port.name);
        if (options.usbInfo && port.usb) {
            record.set("usb-vid", std::to_string(port.usb->vendorId));
            record.set("usb-pid", std::to_string(port.usb->productId));
            record.set("usb-desc", port.usb->product);
            record.set("device-sn", port.usb->serialNumber);
        }
        records.push_back(std::move(record));
    }
}

void enumerateSerialInterfaces(const SerialPortScanner& scanner, RecordList& records) {
    for (const auto& port : scanner.scan()) {
        PropertyRecord record;
        record.set("iface-type", "serial");
        record.set("name", port.name);
        record.set("serial-port", port.name);
        records.push_back(std::move(record));
    }
}

std::uint32_t listSerialLocators(SerialPortCache& cache, std::string_view optionsText, char* buffer,
                                 std::size_t* ioSize) {
    // This listing takes no option set: a plain search for the word is all
    // that decides whether the cache is bypassed.
    cache.refresh(mentions(optionsText, "force-rescan"));
    std::vector<std::string> locators;
    for (const auto& port : cache.ports()) {
        locators.push_back("serial:" + port.name);
    }
    return copyTextOut(joinTexts(locators, "\n"), buffer, ioSize);
}

}  // namespace kmio
