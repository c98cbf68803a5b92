#include "interface/enumeration.h"
#include "options/list_filter.h"

#include <algorithm>
#include <string>
#include <vector>

#include "interface/process.h"
#include "kmio/kmio.h"
#include "link/result_translation.h"
#include "network/network_enumeration.h"
#include "network/network_interface_enumeration.h"
#include "options/option_sets.h"
#include "options/property_record.h"
#include "options/text_output.h"
#include "serial/serial_enumeration.h"
#include "usb/usb_enumeration.h"

namespace kmio {

namespace {

void append(RecordList& to, RecordList&& from) {
    to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
}

bool named(const std::vector<std::string>& values, std::string_view value) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

std::uint32_t enumerateAllLinks(Process& process, std::string_view text, char* buffer, std::size_t* ioSize) {
    const EnumerationOptions options = EnumerationOptions::parse(text);
    // A discovery pass ends by raising events, which wait for the table mutex
    // that the event callback's thread holds: from there it would never end.
    // Refuse before any link is listed.
    if (options.selects("network") && process.devices().runningEventCallback()) {
        return KM_IO_ERR_ENUMERATION_FAILED;
    }
    RecordList records;
    // One list per link, appended in the order USB, network, serial; the
    // first link that fails ends the call with its code.
    if (options.selects("usb")) {
        RecordList usb;
        if (const std::uint32_t result = enumerateUsbDevices(options.usb, usb, process.usbDevices());
            result != KM_IO_OK) {
            return result;
        }
        append(records, std::move(usb));
    }
    if (options.selects("network")) {
        RecordList network;
        enumerateNetworkDevices(process.discovery(), options.network, network);
        append(records, std::move(network));
    }
    if (options.selects("serial")) {
        RecordList serial;
        enumerateSerialDevices(process.serialPorts(), options.serial, serial);
        append(records, std::move(serial));
    }
    const std::string out =
        options.onlyLocator ? renderKey(records, "locator") : renderRecords(records, options.include);
    return copyTextOut(out, buffer, ioSize);
}

std::uint32_t enumerateHostInterfaces(SerialPortCache& serialPorts, std::string_view text, char* buffer,
                                      std::size_t* ioSize) {
    const InterfaceEnumerationOptions options = InterfaceEnumerationOptions::parse(text);
    // No "iface-type" at all lists both kinds, as the device enumeration
    // lists every link when none is named.
    const bool all = named(options.ifaceType, "all");
    RecordList records;
    if (all || admits(options.ifaceType, "network")) {
        RecordList network;
        if (const std::uint32_t result = enumerateNetworkInterfaces(network); result != KM_IO_OK) {
            return result;
        }
        append(records, std::move(network));
    }
    if (all || admits(options.ifaceType, "serial")) {
        RecordList serial;
        enumerateSerialInterfaces(serialPorts.scanner(), serial);
        append(records, std::move(serial));
    }
    const std::string out =
        options.only ? renderKey(records, *options.only) : renderRecords(records, options.include);
    return copyTextOut(out, buffer, ioSize);
}

}  // namespace

bool canEnumerateDevices(std::uint32_t interfaceType) noexcept {
    // Network devices are listed only through the combined enumeration.
    return interfaceType == KM_IO_IFACE_USB || interfaceType == KM_IO_IFACE_SERIAL;
}

std::uint32_t enumerateDevices(Process& process, std::uint32_t interfaceType, std::string_view options,
                               char* buffer, std::size_t* ioSize) {
    return resultOf(OperationKind::Enumeration, [&]() -> std::uint32_t {
        switch (interfaceType) {
            case KM_IO_IFACE_USB:
                return listUsbDevices(options, buffer, ioSize, process.usbDevices());
            case KM_IO_IFACE_SERIAL:
                return listSerialLocators(process.serialPorts(), options, buffer, ioSize);
            case KM_IO_IFACE_ALL:
                return enumerateAllLinks(process, options, buffer, ioSize);
            default:
                return KM_IO_ERR_NOT_SUPPORTED;
        }
    });
}

std::uint32_t enumerateInterfaces(SerialPortCache& serialPorts, std::string_view options, char* buffer,
                                  std::size_t* ioSize) {
    return resultOf(OperationKind::Enumeration,
                    [&] { return enumerateHostInterfaces(serialPorts, options, buffer, ioSize); });
}

}  // namespace kmio
