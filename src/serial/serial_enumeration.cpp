#include "serial/serial_enumeration.h"

#include <string>
#include <vector>

#include "serial/serial_port_cache.h"
#include "kmio/kmio.h"
#include "options/text_output.h"

namespace kmio {

std::uint32_t enumerateSerialDevices(SerialPortCache& cache, bool forceRescan, RecordList& records) {
    if (const std::uint32_t result = cache.refresh(forceRescan); result != KM_IO_OK) {
        return result;
    }
    // Ports that someone else held at the last scan cannot be opened, so they
    // are not offered as devices.
    for (const auto& port : cache.ports()) {
        if (!port.available) {
            continue;
        }
        PropertyRecord record;
        record.set("iface-type", "serial");
        record.set("locator", "serial:" + port.name);
        records.push_back(std::move(record));
    }
    return KM_IO_OK;
}

std::uint32_t enumerateSerialInterfaces(const SerialPortScanner& scanner, RecordList& records) {
    for (const auto& port : scanner.scan()) {
        PropertyRecord record;
        record.set("iface-type", "serial");
        record.set("name", port.name);
        record.set("serial-port", port.name);
        records.push_back(std::move(record));
    }
    return KM_IO_OK;
}

std::uint32_t listSerialLocators(SerialPortCache& cache, std::string_view optionsText, char* buffer,
                                 std::size_t* ioSize) {
    // This listing takes no option set: a plain search for the word is all
    // that decides whether the cache is bypassed.
    const bool force = optionsText.find("force-rescan") != std::string_view::npos;
    if (const std::uint32_t result = cache.refresh(force); result != KM_IO_OK) {
        if (buffer != nullptr && *ioSize > 0) {
            buffer[0] = '\0';
        }
        *ioSize = 0;
        return result;
    }
    std::vector<std::string> locators;
    for (const auto& port : cache.ports()) {
        locators.push_back("serial:" + port.name);
    }
    return copyTextOut(joinTexts(locators, "\n"), buffer, ioSize);
}

std::uint32_t enumerateSerialDevices(bool forceRescan, RecordList& records) {
    return enumerateSerialDevices(SerialPortCache::processWide(), forceRescan, records);
}

std::uint32_t enumerateSerialInterfaces(RecordList& records) {
    return enumerateSerialInterfaces(SerialPortCache::processWide().scanner(), records);
}

std::uint32_t listSerialLocators(std::string_view optionsText, char* buffer, std::size_t* ioSize) {
    return listSerialLocators(SerialPortCache::processWide(), optionsText, buffer, ioSize);
}

}  // namespace kmio
