#include "options/property_record.h"

#include <algorithm>

namespace kmio {

void PropertyRecord::set(std::string_view key, std::string value) {
    for (auto& item : items_) {
        if (item.first == key) {
            item.second = std::move(value);
            return;
        }
    }
    items_.emplace_back(std::string(key), std::move(value));
}

const std::string* PropertyRecord::find(std::string_view key) const {
    for (const auto& item : items_) {
        if (item.first == key) {
            return &item.second;
        }
    }
    return nullptr;
}

namespace record_keys {

// "protocol-idusb-desc" is one entry, not two: callers have long relied on
// "include-protocol-idusb-desc" being accepted and on "include-protocol-id"
// and "include-usb-desc" not being options of USB enumeration.
const std::vector<std::string>& usbDevice() {
    static const std::vector<std::string> keys{"all",        "available", "device-sn",
                                               "iface-type", "locator",   "protocol-idusb-desc",
                                               "usb-id",     "usb-pid",   "usb-vid"};
    return keys;
}

const std::vector<std::string>& networkDevice() {
    static const std::vector<std::string> keys{"all",          "available",    "device-info", "device-sn",
                                               "device-type",  "iface",        "iface-type",  "locator",
                                               "network-host", "network-port", "protocol-id"};
    return keys;
}

const std::vector<std::string>& serialDevice() {
    static const std::vector<std::string> keys{"all", "iface-type", "locator"};
    return keys;
}

const std::vector<std::string>& networkInterface() {
    static const std::vector<std::string> keys{"all", "iface-type", "network-host", "network-subnet-mask",
                                               "name"};
    return keys;
}

const std::vector<std::string>& serialInterface() {
    static const std::vector<std::string> keys{"all", "iface-type", "name", "serial-port"};
    return keys;
}

}  // namespace record_keys

namespace {

struct Escape {
    char from;
    std::string_view to;
};

// '%' goes first so that the escapes added by the later rules stay as they are.
constexpr Escape kEscapes[] = {{'%', "%25"}, {'\n', "%0A"}, {'|', "%7C"}, {'=', "%3D"}};

void replaceAll(std::string& text, char from, std::string_view to) {
    std::size_t pos = text.find(from);
    while (pos != std::string::npos) {
        text.replace(pos, 1, to);
        pos = text.find(from, pos + to.size());
    }
}

std::string renderItem(const std::string& key, const std::string& value) {
    return key + "=" + escapeValue(value);
}

}  // namespace

std::string escapeValue(std::string_view value) {
    std::string text(value);
    for (const Escape& escape : kEscapes) {
        replaceAll(text, escape.from, escape.to);
    }
    return text;
}

std::string renderRecords(const RecordList& records, const std::vector<std::string>& include) {
    const bool all = std::find(include.begin(), include.end(), "all") != include.end();
    std::vector<std::string> lines;
    lines.reserve(records.size());
    for (const PropertyRecord& record : records) {
        std::vector<std::string> items;
        if (all) {
            for (const auto& [key, value] : record.items()) {
                items.push_back(renderItem(key, value));
            }
        } else {
            for (const std::string& key : include) {
                if (const std::string* value = record.find(key)) {
                    items.push_back(renderItem(key, *value));
                }
            }
        }
        if (!items.empty()) {
            lines.push_back(joinTexts(items, "|"));
        }
    }
    return joinTexts(lines, "\n");
}

std::string renderKey(const RecordList& records, std::string_view key) {
    std::vector<std::string> values;
    for (const PropertyRecord& record : records) {
        if (const std::string* value = record.find(key)) {
            values.push_back(*value);
        }
    }
    return joinTexts(values, "\n");
}

std::string joinTexts(const std::vector<std::string>& parts, std::string_view separator) {
    if (parts.empty()) {
        return {};
    }
    std::size_t length = separator.size() * (parts.size() - 1);
    for (const std::string& part : parts) {
        length += part.size();
    }
    std::string text;
    text.reserve(length);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i != 0) {
            text += separator;
        }
        text += parts[i];
    }
    return text;
}

const std::array<std::string, 4>& usbProductNames() {
    static const std::array<std::string, 4> names{"Kalomet DRV-I", "Kalomet DRV2", "Kalomet Detect",
                                                  "Kalomet HUB-3X"};
    return names;
}

}  // namespace kmio
