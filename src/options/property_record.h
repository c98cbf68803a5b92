#pragma once

#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kmio {

// A device or interface description: text keys with text values, kept in the
// order in which they were first set.
class PropertyRecord {
public:
    // Sets a key; setting an existing key replaces its value in place.
    void set(std::string_view key, std::string value);
    const std::string* find(std::string_view key) const;
    const std::vector<std::pair<std::string, std::string>>& items() const noexcept { return items_; }

private:
    std::vector<std::pair<std::string, std::string>> items_;
};

using RecordList = std::vector<PropertyRecord>;

// The fixed key list of each record kind, "all" first. These decide which
// "include-" and "only-" options the enumerations accept.
namespace record_keys {
const std::vector<std::string>& usbDevice();
const std::vector<std::string>& networkDevice();
const std::vector<std::string>& serialDevice();
const std::vector<std::string>& networkInterface();
const std::vector<std::string>& serialInterface();
}  // namespace record_keys

// Escapes '%', '\n', '|' and '=' (in that order) for the record text.
std::string escapeValue(std::string_view value);

// The record text: one line per record that yields an item, items "key=value"
// joined by '|', lines joined by '\n'. With "all" in include every key of each
// record is written; otherwise the include keys the record holds, in include order.
std::string renderRecords(const RecordList& records, const std::vector<std::string>& include);

// The unescaped values of one key, one per record that holds it, joined by
// '\n' (the "only-locator" form, and "only-KEY" of interface enumeration).
std::string renderKey(const RecordList& records, std::string_view key);

// Joins texts with a separator; the join of nothing is empty.
std::string joinTexts(const std::vector<std::string>& parts, std::string_view separator);

// Product descriptions of devices whose EEPROM carries no link profile.
const std::array<std::string, 4>& usbProductNames();

}  // namespace kmio
