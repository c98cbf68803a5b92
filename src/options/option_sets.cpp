#include "options/option_sets.h"
#include "options/list_filter.h"

#include <algorithm>

#include "options/option_list.h"
#include "options/options_error.h"
#include "options/property_record.h"

namespace kmio {

namespace {

bool contains(const std::vector<std::string>& values, std::string_view value) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

// Reads "<prefix>K" as a boolean for every key K of the lists, each distinct
// key once and in list order, and returns the keys whose option is true.
std::vector<std::string> readPrefixed(OptionReader& reader, std::string_view prefix,
                                      const std::vector<const std::vector<std::string>*>& lists) {
    std::vector<std::string> visited;
    std::vector<std::string> selected;
    for (const auto* keys : lists) {
        for (const std::string& key : *keys) {
            if (contains(visited, key)) {
                continue;
            }
            visited.push_back(key);
            bool on = false;
            reader.get(std::string(prefix) + key, on);
            if (on) {
                selected.push_back(key);
            }
        }
    }
    return selected;
}

bool present(const OptionReader& reader, std::string_view key) {
    const OptionList& list = reader.list();
    return std::any_of(list.begin(), list.end(), [&](const OptionPair& p) { return p.first == key; });
}

}  // namespace

SerialOpenOptions SerialOpenOptions::parse(std::string_view text) {
    OptionReader reader(text);
    SerialOpenOptions o;
    reader.get("baudrate", o.baudrate);
    reader.get("xonxoff", o.xonxoff);
    reader.checkStrict();
    return o;
}

NetworkOpenOptions NetworkOpenOptions::parse(std::string_view text) {
    OptionReader reader(text);
    NetworkOpenOptions o;
    // Read and dropped: "strict" must know the key, and a value that does
    // not convert makes the open fail with bad options before any connect.
    std::uint32_t connectTimeout = 0;
    reader.get("connect-timeout", connectTimeout);
    reader.get("port", o.port);
    reader.getSet("iface", o.iface);
    reader.get("discovery-timeout", o.discoveryTimeout);
    reader.checkStrict();
    return o;
}

UsbOpenOptions UsbOpenOptions::parse(std::string_view text) {
    OptionReader reader(text);
    UsbOpenOptions o;
    reader.get("rx-timeout", o.rxTimeout);
    reader.get("tx-timeout", o.txTimeout);
    reader.get("ftdi-latency", o.ftdiLatency);
    reader.get("health-check", o.healthCheck);
    reader.get("baudrate", o.baudrate);
    reader.getSet("product-name", o.productName);
    reader.get("ftdi-flow-control", o.ftdiFlowControl);
    reader.checkStrict();
    return o;
}

bool EnumerationOptions::selects(std::string_view link) const {
    // No "iface-type" at all means "enumerate everything": a caller who does
    // not narrow the search expects to see every device.
    return admits(ifaceType, link) || contains(ifaceType, "all");
}

EnumerationOptions EnumerationOptions::parse(std::string_view text) {
    OptionReader reader(text);
    EnumerationOptions o;
    reader.getSet("iface-type", o.ifaceType);
    reader.get("only-locator", o.onlyLocator);

    UsbEnumerationOptions& usb = o.usb;
    reader.get("force-rescan", usb.forceRescan);
    reader.get("find-only-available", usb.findOnlyAvailable);
    reader.getList("find-protocol-id", usb.findProtocolId);
    reader.getList("find-usb-pid", usb.findUsbPid);
    reader.getList("find-usb-vid", usb.findUsbVid);
    reader.getSet("find-usb-product-name", usb.findUsbProductName);
    reader.get("locator-format-usb", usb.locatorFormatUsb);

    NetworkEnumerationOptions& net = o.network;
    reader.get("force-rescan", net.forceRescan);
    reader.getSet("iface", net.iface);
    reader.get("discovery-timeout", net.discoveryTimeout);
    reader.getSet("find-device-sn", net.findDeviceSn);
    reader.getList("find-device-type", net.findDeviceType);
    reader.get("find-only-available", net.findOnlyAvailable);
    reader.getList("find-protocol-id", net.findProtocolId);
    reader.get("locator-format-network", net.locatorFormatNetwork);

    SerialEnumerationOptions& serial = o.serial;
    reader.get("force-rescan", serial.forceRescan);
    reader.get("serial-usb-info", serial.usbInfo);
    serial.findUsbPid = usb.findUsbPid;
    serial.findUsbVid = usb.findUsbVid;
    serial.findUsbProductName = usb.findUsbProductName;
    serial.findDeviceSn = net.findDeviceSn;

    // One include key may belong to several record kinds ("locator"); it is
    // read once and listed once, at its first place.
    o.include = readPrefixed(
        reader, "include-",
        {&record_keys::usbDevice(), &record_keys::networkDevice(), &record_keys::serialDevice()});
    reader.checkStrict();
    return o;
}

InterfaceEnumerationOptions InterfaceEnumerationOptions::parse(std::string_view text) {
    OptionReader reader(text);
    InterfaceEnumerationOptions o;
    reader.getSet("iface-type", o.ifaceType);
    const std::vector<const std::vector<std::string>*> lists{&record_keys::networkInterface(),
                                                             &record_keys::serialInterface()};
    // "only-all" is accepted like any other key of the lists; it selects the
    // property "all", which no record holds, and so yields empty output.
    const std::vector<std::string> only = readPrefixed(reader, "only-", lists);
    o.include = readPrefixed(reader, "include-", lists);
    if (only.size() > 1) {
        throw OptionsError("Only one only-* option may be set");
    }
    if (!only.empty()) {
        o.only = only.front();
    }
    reader.checkStrict();
    return o;
}

GlobalOptions GlobalOptions::parse(std::string_view text) {
    OptionReader reader(text);
    GlobalOptions o;
    reader.get("locator-format-network", o.locatorFormatNetwork);
    std::vector<std::string> iface;
    reader.getSet("discovery-iface", iface);
    if (present(reader, "discovery-iface")) {
        o.discoveryIface = std::move(iface);
    }
    reader.checkStrict();
    return o;
}

}  // namespace kmio
