#include "usb/usb_enumeration.h"
#include "options/list_filter.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "kmio/kmio.h"
#include "options/option_list.h"
#include "options/text_output.h"
#include "usb/d2xx_binding.h"
#include "usb/usb_device_cache.h"

namespace kmio {

namespace {

struct OlderListOptions {
    UsbDeviceFilter filter;
    bool includeId = false;
    bool includeVid = false;
    bool includePid = false;
    bool includeDescription = false;
    bool includeSerialNumber = false;
    bool forceRescan = false;
};

OlderListOptions parseOlderListOptions(std::string_view text) {
    OlderListOptions o;
    for (const auto& [key, value] : splitOptions(text)) {
        if (key == "product-name") {
            o.filter.productNames.push_back(value);
        } else if (key == "usb-vid") {
            o.filter.vendorIds.push_back(toUnsigned(value));
        } else if (key == "usb-pid") {
            o.filter.productIds.push_back(toUnsigned(value));
        }
    }
    // These flags count wherever their names stand, even inside another line.
    o.includeId = mentions(text, "include-id");
    o.includeVid = mentions(text, "include-usb-vid");
    o.includePid = mentions(text, "include-usb-pid");
    o.includeDescription = mentions(text, "include-ds");
    o.includeSerialNumber = mentions(text, "include-sn");
    o.forceRescan = mentions(text, "force-rescan");
    return o;
}

PropertyRecord deviceRecord(const UsbDeviceEntry& entry, const std::string& description, std::uint32_t chipId,
                            const std::string& locatorFormat) {
    const std::string serialNumber = entry.deviceSerialNumber();
    PropertyRecord record;
    record.set("iface-type", "usb");
    record.set("usb-vid", std::to_string(entry.vendorId()));
    record.set("usb-pid", std::to_string(entry.productId()));
    record.set("usb-desc", description);
    record.set("device-sn", serialNumber);
    record.set("locator",
               locatorFormat == "id" ? "usb:id:" + std::to_string(chipId) : "usb:sn:" + serialNumber);
    record.set("available", entry.opened() ? "0" : "1");
    if (chipId != 0) {
        record.set("usb-id", std::to_string(chipId));
    }
    return record;
}

}  // namespace

std::uint32_t olderUsbListLocked(std::string_view optionsText, UsbDeviceCache& cache, std::string& text) {
    const OlderListOptions options = parseOlderListOptions(optionsText);
    if (const std::uint32_t scanned = cache.scan(options.forceRescan); scanned != KM_IO_OK) {
        return scanned;
    }
    std::vector<std::string> lines;
    const std::vector<SelectedUsbDevice> selected = cache.select(options.filter);
    cache.probe(selected);
    for (const SelectedUsbDevice& device : selected) {
        const UsbDeviceEntry& entry = cache.entries()[device.index];
        std::string line = "usb";
        if (options.includeId) {
            line += ":id:" + std::to_string(cache.chipId(device.index));
        }
        if (options.includeVid) {
            line += ":usb-vid:" + std::to_string(entry.vendorId());
        }
        if (options.includePid) {
            line += ":usb-pid:" + std::to_string(entry.productId());
        }
        if (options.includeDescription) {
            line += ":ds:" + device.description;
        }
        if (options.includeSerialNumber) {
            line += ":sn:" + entry.deviceSerialNumber();
        }
        lines.push_back(std::move(line));
    }
    text = joinTexts(lines, "\n");
    return KM_IO_OK;
}

std::uint32_t listUsbDevices(std::string_view optionsText, char* buffer, std::size_t* ioSize,
                             UsbDeviceCache& cache) {
    if (!cache.binding().load()) {
        return KM_IO_ERR_DRIVER_UNAVAILABLE;
    }
    std::string text;
    {
        std::lock_guard lock(cache.mutex());
        if (const std::uint32_t result = olderUsbListLocked(optionsText, cache, text); result != KM_IO_OK) {
            return result;
        }
    }
    return copyTextOut(text, buffer, ioSize);
}

std::uint32_t enumerateUsbDevices(const UsbEnumerationOptions& options, RecordList& records,
                                  UsbDeviceCache& cache) {
    if (options.locatorFormatUsb != "sn" && options.locatorFormatUsb != "id") {
        return KM_IO_ERR_BAD_OPTIONS;
    }
    // Without the driver there is simply no USB device to list; the other
    // links are still listed.
    if (!cache.binding().load()) {
        return KM_IO_OK;
    }
    std::lock_guard lock(cache.mutex());
    if (const std::uint32_t scanned = cache.scan(options.forceRescan); scanned != KM_IO_OK) {
        return scanned;
    }
    const UsbDeviceFilter filter{options.findOnlyAvailable, options.findUsbProductName, options.findUsbVid,
                                 options.findUsbPid};
    const std::vector<SelectedUsbDevice> selected = cache.select(filter);
    cache.probe(selected);
    for (const SelectedUsbDevice& device : selected) {
        const UsbDeviceEntry& entry = cache.entries()[device.index];
        const PropertyRecord record =
            deviceRecord(entry, device.description, cache.chipId(device.index), options.locatorFormatUsb);
        if (entry.protocolIds.empty()) {
            if (options.findProtocolId.empty()) {
                records.push_back(record);
            }
            continue;
        }
        for (const std::uint16_t id : entry.protocolIds) {
            if (admits(options.findProtocolId, std::uint32_t{id})) {
                PropertyRecord copy = record;
                copy.set("protocol-id", std::to_string(id));
                records.push_back(std::move(copy));
            }
        }
    }
    return KM_IO_OK;
}

}  // namespace kmio
