#include "options/option_sets.h"

#include <gtest/gtest.h>

#include "options/options_error.h"

using namespace kmio;
using Strings = std::vector<std::string>;
using Numbers = std::vector<std::uint32_t>;

TEST(OptionSets, EmptyTextGivesEveryDefault) {
    const auto serial = SerialOpenOptions::parse("");
    EXPECT_EQ(serial.baudrate, 0u);
    EXPECT_FALSE(serial.xonxoff);

    const auto net = NetworkOpenOptions::parse("");
    EXPECT_EQ(net.connectTimeout, 5000u);
    EXPECT_EQ(net.port, 0u);
    EXPECT_TRUE(net.iface.empty());
    EXPECT_EQ(net.discoveryTimeout, 100u);

    const auto usb = UsbOpenOptions::parse("");
    EXPECT_EQ(usb.rxTimeout, 1000u);
    EXPECT_EQ(usb.txTimeout, 1000u);
    EXPECT_EQ(usb.ftdiLatency, 2u);
    EXPECT_EQ(usb.healthCheck, 250u);
    EXPECT_FALSE(usb.baudrate.has_value());
    EXPECT_TRUE(usb.productName.empty());
    EXPECT_FALSE(usb.ftdiFlowControl.has_value());

    const auto e = EnumerationOptions::parse("");
    EXPECT_TRUE(e.ifaceType.empty());
    EXPECT_FALSE(e.onlyLocator);
    EXPECT_FALSE(e.usb.forceRescan);
    EXPECT_TRUE(e.usb.findOnlyAvailable);
    EXPECT_EQ(e.usb.locatorFormatUsb, "sn");
    EXPECT_FALSE(e.network.forceRescan);
    EXPECT_TRUE(e.network.findOnlyAvailable);
    EXPECT_EQ(e.network.discoveryTimeout, 100u);
    EXPECT_EQ(e.network.locatorFormatNetwork, "sn");
    EXPECT_FALSE(e.serial.forceRescan);
    EXPECT_TRUE(e.include.empty());

    const auto i = InterfaceEnumerationOptions::parse("");
    EXPECT_TRUE(i.ifaceType.empty() && i.include.empty());
    EXPECT_FALSE(i.only.has_value());

    const auto g = GlobalOptions::parse("");
    EXPECT_FALSE(g.locatorFormatNetwork.has_value());
    EXPECT_FALSE(g.discoveryIface.has_value());
}

TEST(OptionSets, OptionalFieldsRememberPresence) {
    const auto usb =
        UsbOpenOptions::parse("baudrate 0\nftdi-flow-control rtscts\nproduct-name A\nproduct-name B");
    EXPECT_EQ(usb.baudrate, 0u);
    EXPECT_EQ(usb.ftdiFlowControl, "rtscts");
    EXPECT_EQ(usb.productName, (Strings{"A", "B"}));

    const auto onlyIface = GlobalOptions::parse("discovery-iface network:10.0.0.1");
    EXPECT_FALSE(onlyIface.locatorFormatNetwork.has_value());
    EXPECT_EQ(onlyIface.discoveryIface, (Strings{"network:10.0.0.1"}));
    const auto onlyFormat = GlobalOptions::parse("locator-format-network host");
    EXPECT_EQ(onlyFormat.locatorFormatNetwork, "host");
    EXPECT_FALSE(onlyFormat.discoveryIface.has_value());
}

TEST(OptionSets, StrictKnowsEachSetsOwnKeys) {
    EXPECT_NO_THROW(SerialOpenOptions::parse("strict\nbaudrate 9600"));
    EXPECT_NO_THROW(UsbOpenOptions::parse("strict\nbaudrate 9600"));
    EXPECT_THROW(NetworkOpenOptions::parse("strict\nbaudrate 9600"), OptionsError);
    EXPECT_NO_THROW(EnumerationOptions::parse("strict\ninclude-protocol-idusb-desc\ninclude-device-info"));
    EXPECT_THROW(EnumerationOptions::parse("strict\ninclude-usb-desc"), OptionsError);
    EXPECT_NO_THROW(
        InterfaceEnumerationOptions::parse("strict\nonly-serial-port\ninclude-network-subnet-mask"));
    EXPECT_THROW(GlobalOptions::parse("strict\niface network:all"), OptionsError);
    EXPECT_THROW(SerialOpenOptions::parse("baudrate fast"), OptionsError);
}

TEST(EnumerationOptions, SharedKeysFillBothSections) {
    const auto e = EnumerationOptions::parse(
        "find-only-available false\nforce-rescan\nfind-protocol-id 3\nfind-usb-vid 1027\n"
        "find-usb-vid 1028\niface network:all\nfind-device-type 7\nlocator-format-network host");
    EXPECT_FALSE(e.usb.findOnlyAvailable);
    EXPECT_FALSE(e.network.findOnlyAvailable);
    EXPECT_TRUE(e.usb.forceRescan && e.network.forceRescan && e.serial.forceRescan);
    EXPECT_EQ(e.usb.findProtocolId, (Numbers{3}));
    EXPECT_EQ(e.network.findProtocolId, (Numbers{3}));
    EXPECT_EQ(e.usb.findUsbVid, (Numbers{1027, 1028}));
    EXPECT_EQ(e.network.iface, (Strings{"network:all"}));
    EXPECT_EQ(e.network.findDeviceType, (Numbers{7}));
    EXPECT_EQ(e.network.locatorFormatNetwork, "host");
}

TEST(EnumerationOptions, IncludeKeysFollowRecordKeyOrderOnce) {
    const auto e = EnumerationOptions::parse(
        "include-protocol-id\ninclude-locator\ninclude-usb-vid\ninclude-all 0\ninclude-iface-type on");
    EXPECT_EQ(e.include, (Strings{"iface-type", "locator", "usb-vid", "protocol-id"}));
    EXPECT_THROW(EnumerationOptions::parse("include-locator maybe"), OptionsError);
}

TEST(EnumerationOptions, SelectsLinks) {
    const struct {
        const char* text;
        bool usb, network, serial;
    } cases[] = {
        {"", true, true, true},
        {"iface-type all", true, true, true},
        {"iface-type serial", false, false, true},
        {"iface-type usb\niface-type network", true, true, false},
        {"iface-type Serial", false, false, false},
    };
    for (const auto& c : cases) {
        const auto e = EnumerationOptions::parse(c.text);
        EXPECT_EQ(e.selects("usb"), c.usb) << c.text;
        EXPECT_EQ(e.selects("network"), c.network) << c.text;
        EXPECT_EQ(e.selects("serial"), c.serial) << c.text;
    }
}

TEST(InterfaceEnumerationOptions, OnlyKeysExcludeEachOther) {
    const struct {
        const char* text;
        std::optional<std::string> only;
        bool fails;
    } cases[] = {
        {"only-name", "name", false},
        {"only-name\nonly-serial-port false", "name", false},
        {"only-name\nonly-serial-port", std::nullopt, true},
        {"only-iface-type\nonly-network-host 1", std::nullopt, true},
        {"only-all", "all", false},
    };
    for (const auto& c : cases) {
        if (c.fails) {
            try {
                InterfaceEnumerationOptions::parse(c.text);
                ADD_FAILURE() << c.text;
            } catch (const OptionsError& e) {
                EXPECT_STREQ(e.what(), "Only one only-* option may be set");
            }
        } else {
            EXPECT_EQ(InterfaceEnumerationOptions::parse(c.text).only, c.only) << c.text;
        }
    }
    const auto i =
        InterfaceEnumerationOptions::parse("include-serial-port\ninclude-name\niface-type network");
    EXPECT_EQ(i.include, (Strings{"name", "serial-port"}));
    EXPECT_EQ(i.ifaceType, (Strings{"network"}));
}
