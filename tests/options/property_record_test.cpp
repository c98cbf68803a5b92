#include "options/property_record.h"

#include <gtest/gtest.h>

using namespace kmio;

namespace {

PropertyRecord record(std::initializer_list<std::pair<const char*, const char*>> items) {
    PropertyRecord r;
    for (const auto& [k, v] : items)
        r.set(k, v);
    return r;
}

}  // namespace

TEST(EscapeValue, ReplacesPercentFirst) {
    EXPECT_EQ(escapeValue("a|b=c%\n"), "a%7Cb%3Dc%25%0A");
    EXPECT_EQ(escapeValue("%7C"), "%257C");
}

TEST(RenderRecords, IncludedKeysKeepRecordOrderAndValuesAreEscaped) {
    // A second set of a key replaces the value where it first stood.
    const RecordList records{
        record({{"iface-type", "usb"}, {"locator", "x"}, {"usb-id", "77"}, {"locator", "usb:sn:A|1"}}),
        record({{"iface-type", "usb"}, {"locator", "usb:sn:B"}, {"protocol-id", "2"}}),
        record({{"iface-type", "serial"}}),
    };
    const struct {
        std::vector<std::string> include;
        const char* text;
    } cases[] = {
        {{}, ""},
        {{"usb-id"}, "usb-id=77"},
        {{"protocol-id", "locator"}, "locator=usb:sn:A%7C1\nprotocol-id=2|locator=usb:sn:B"},
        {{"locator", "all"},
         "iface-type=usb|locator=usb:sn:A%7C1|usb-id=77\n"
         "iface-type=usb|locator=usb:sn:B|protocol-id=2\niface-type=serial"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(renderRecords(records, c.include), c.text) << joinTexts(c.include, ",");
    EXPECT_EQ(renderKey(records, "locator"), "usb:sn:A|1\nusb:sn:B");
}
