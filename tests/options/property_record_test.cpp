#include "options/property_record.h"

#include <gtest/gtest.h>

using namespace kmio;
using Strings = std::vector<std::string>;

namespace {

PropertyRecord record(std::initializer_list<std::pair<const char*, const char*>> items) {
    PropertyRecord r;
    for (const auto& [k, v] : items)
        r.set(k, v);
    return r;
}

}  // namespace

TEST(PropertyRecord, KeepsFirstSetOrderAndReplacesInPlace) {
    PropertyRecord r = record({{"b", "1"}, {"a", "2"}});
    r.set("b", "3");
    EXPECT_EQ(r.items(), (std::vector<std::pair<std::string, std::string>>{{"b", "3"}, {"a", "2"}}));
    EXPECT_EQ(r.find("c"), nullptr);
}

TEST(RecordKeys, ListsAreFixed) {
    EXPECT_EQ(record_keys::usbDevice().size(), 9u);
    EXPECT_EQ(record_keys::usbDevice()[5], "protocol-idusb-desc");
    EXPECT_EQ(record_keys::networkDevice().size(), 11u);
    EXPECT_EQ(record_keys::serialDevice(), (Strings{"all", "iface-type", "locator"}));
    EXPECT_EQ(record_keys::networkInterface(),
              (Strings{"all", "iface-type", "network-host", "network-subnet-mask", "name"}));
    EXPECT_EQ(record_keys::serialInterface(), (Strings{"all", "iface-type", "name", "serial-port"}));
    EXPECT_EQ(usbProductNames()[0], "Kalomet DRV-I");
    EXPECT_EQ(usbProductNames()[3], "Kalomet HUB-3X");
}

TEST(EscapeValue, ReplacesPercentFirst) {
    EXPECT_EQ(escapeValue("a|b=c%\n"), "a%7Cb%3Dc%25%0A");
    EXPECT_EQ(escapeValue("%7C"), "%257C");
    EXPECT_EQ(escapeValue("plain"), "plain");
}

TEST(RenderRecords, FullAndLocatorForms) {
    const RecordList records{
        record({{"iface-type", "usb"}, {"locator", "usb:sn:A|1"}, {"usb-id", "77"}, {"protocol-id", "1"}}),
        record({{"iface-type", "usb"}, {"locator", "usb:sn:B"}, {"protocol-id", "2"}}),
        record({{"iface-type", "serial"}}),
    };
    const struct {
        Strings include;
        const char* text;
    } cases[] = {
        {{}, ""},
        {{"usb-id"}, "usb-id=77"},
        {{"protocol-id", "locator"}, "protocol-id=1|locator=usb:sn:A%7C1\nprotocol-id=2|locator=usb:sn:B"},
        {{"locator", "all"},
         "iface-type=usb|locator=usb:sn:A%7C1|usb-id=77|protocol-id=1\n"
         "iface-type=usb|locator=usb:sn:B|protocol-id=2\niface-type=serial"},
        {{"protocol-idusb-desc"}, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(renderRecords(records, c.include), c.text) << joinTexts(c.include, ",");
    }
    EXPECT_EQ(renderKey(records, "locator"), "usb:sn:A|1\nusb:sn:B");
    EXPECT_EQ(renderKey({}, "locator"), "");
}

TEST(JoinTexts, Separators) {
    EXPECT_EQ(joinTexts({}, "|"), "");
    EXPECT_EQ(joinTexts({"a"}, "|"), "a");
    EXPECT_EQ(joinTexts({"a", "", "b"}, ", "), "a, , b");
}
