#include "interface/enumeration.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "network/network_enumeration.h"
#include "serial/serial_enumeration.h"
#include "usb/usb_enumeration.h"
#include "interface/device_table.h"
#include "kmio/kmio.h"
#include "options/option_sets.h"
#include "options/options_error.h"
#include "options/property_record.h"
#include "options/text_output.h"

namespace kmio {

namespace {

// Runs one entry point and turns what it throws into a result code.
template <class Fn>
std::uint32_t guarded(Fn&& fn) {
    try {
        return fn();
    } catch (const OptionsError&) {
        return KM_IO_ERR_BAD_OPTIONS;
    } catch (const std::invalid_argument&) {
        // A "strict" value that is not a boolean: still a bad option string.
        return KM_IO_ERR_BAD_OPTIONS;
    } catch (const std::out_of_range&) {
        return KM_IO_ERR_BAD_OPTIONS;
    } catch (const std::system_error& e) {
        // Re-entering the table mutex from the event callback is the
        // caller's bug and must stay visible as such.
        if (e.code() == std::errc::resource_deadlock_would_occur) {
            throw;
        }
        return KM_IO_ERR_ENUMERATION_FAILED;
    } catch (const std::exception&) {
        return KM_IO_ERR_ENUMERATION_FAILED;
    }
}

void append(RecordList& to, RecordList&& from) {
    to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
}

bool named(const std::vector<std::string>& values, std::string_view value) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

std::uint32_t enumerateAllLinks(std::string_view text, char* buffer, std::size_t* ioSize) {
    const EnumerationOptions options = EnumerationOptions::parse(text);
    RecordList records;
    // One list per link, appended in the order USB, network, serial; the
    // first link that fails ends the call with its code.
    if (options.selects("usb")) {
        RecordList usb;
        if (const std::uint32_t result = enumerateUsbDevices(options.usb, usb); result != KM_IO_OK) {
            return result;
        }
        append(records, std::move(usb));
    }
    if (options.selects("network")) {
        // A discovery pass ends by raising events, which wait for the table
        // mutex that the event callback's thread holds: from there it would
        // never end. Refuse before any link is listed.
        if (DeviceTable::instance().runningEventCallback()) {
            return KM_IO_ERR_ENUMERATION_FAILED;
        }
        RecordList network;
        if (const std::uint32_t result = enumerateNetworkDevices(options.network, network);
            result != KM_IO_OK) {
            return result;
        }
        append(records, std::move(network));
    }
    if (options.selects("serial")) {
        RecordList serial;
        if (const std::uint32_t result = enumerateSerialDevices(options.serial.forceRescan, serial);
            result != KM_IO_OK) {
            return result;
        }
        append(records, std::move(serial));
    }
    const std::string out =
        options.onlyLocator ? renderKey(records, "locator") : renderRecords(records, options.include);
    return copyTextOut(out, buffer, ioSize);
}

std::uint32_t enumerateHostInterfaces(std::string_view text, char* buffer, std::size_t* ioSize) {
    const InterfaceEnumerationOptions options = InterfaceEnumerationOptions::parse(text);
    // No "iface-type" at all lists both kinds, as the device enumeration
    // lists every link when none is named.
    const bool all = options.ifaceType.empty() || named(options.ifaceType, "all");
    RecordList records;
    if (all || named(options.ifaceType, "network")) {
        RecordList network;
        if (const std::uint32_t result = enumerateNetworkInterfaces(network); result != KM_IO_OK) {
            return result;
        }
        append(records, std::move(network));
    }
    if (all || named(options.ifaceType, "serial")) {
        RecordList serial;
        if (const std::uint32_t result = enumerateSerialInterfaces(serial); result != KM_IO_OK) {
            return result;
        }
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

std::uint32_t enumerateDevices(std::uint32_t interfaceType, std::string_view options, char* buffer,
                               std::size_t* ioSize) {
    return guarded([&]() -> std::uint32_t {
        switch (interfaceType) {
            case KM_IO_IFACE_USB:
                return listUsbDevices(options, buffer, ioSize);
            case KM_IO_IFACE_SERIAL:
                return listSerialLocators(options, buffer, ioSize);
            case KM_IO_IFACE_ALL:
                return enumerateAllLinks(options, buffer, ioSize);
            default:
                return KM_IO_ERR_NOT_SUPPORTED;
        }
    });
}

std::uint32_t enumerateInterfaces(std::string_view options, char* buffer, std::size_t* ioSize) {
    return guarded([&] { return enumerateHostInterfaces(options, buffer, ioSize); });
}

std::uint32_t setGlobalOptions(DeviceTable& table, std::string_view options) {
    return guarded([&] {
        // A call from the event callback is refused before anything starts.
        table.throwIfInEventCallback();
        // A bad string leaves the settings in force untouched: nothing is
        // applied before parse returns. Channels for new interfaces start
        // before the table mutex is taken (their hosts' threads take it to
        // raise events); the settings take effect under it, so they never
        // change while an event callback runs.
        const GlobalOptions parsed = GlobalOptions::parse(options);
        return applyGlobalDiscoveryOptions(
            parsed, [&](const std::function<std::uint32_t()>& commit) { return table.runLocked(commit); });
    });
}

}  // namespace kmio
