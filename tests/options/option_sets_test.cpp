#include "options/option_sets.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "options/options_error.h"
#include "support/checks.h"

using namespace kmio;
using Strings = std::vector<std::string>;
using Numbers = std::vector<std::uint32_t>;

namespace {

template <class Set>
std::string errorOf(std::string_view text) {
    return kmiotest::thrown<OptionsError>([&] { Set::parse(text); });
}

}  // namespace

TEST(OptionSets, FirstValueWinsAndListsKeepEveryValue) {
    const auto serial = SerialOpenOptions::parse("baudrate 115200\nbaudrate 9600\nxonxoff");
    EXPECT_EQ(serial.baudrate, 115200u);
    EXPECT_TRUE(serial.xonxoff);
    const auto usb = UsbOpenOptions::parse(
        "baudrate 0\nftdi-flow-control rts cts\nftdi-flow-control x\nproduct-name A\nproduct-name B\n"
        "product-name A");
    EXPECT_EQ(usb.baudrate, 0u);  // present, unlike an absent baudrate
    EXPECT_EQ(usb.ftdiFlowControl, "rts cts");
    EXPECT_EQ(usb.productName, (Strings{"A", "B"}));
    const auto plain = UsbOpenOptions::parse("");
    EXPECT_FALSE(plain.baudrate.has_value() || plain.ftdiFlowControl.has_value());
    EXPECT_EQ(EnumerationOptions::parse("find-usb-vid 1\nfind-usb-vid 2\nfind-usb-vid 1").usb.findUsbVid,
              (Numbers{1, 2, 1}));

    const auto onlyIface = GlobalOptions::parse("discovery-iface network:10.0.0.1");
    EXPECT_FALSE(onlyIface.locatorFormatNetwork.has_value());
    EXPECT_EQ(onlyIface.discoveryIface, (Strings{"network:10.0.0.1"}));
    const auto onlyFormat = GlobalOptions::parse("locator-format-network host");
    EXPECT_EQ(onlyFormat.locatorFormatNetwork, "host");
    EXPECT_FALSE(onlyFormat.discoveryIface.has_value());
}

TEST(OptionSets, AValueThatDoesNotConvertNamesItsKey) {
    EXPECT_EQ(errorOf<SerialOpenOptions>("baudrate fast"), "Conversion of baudrate failed");
    EXPECT_EQ(errorOf<SerialOpenOptions>("baudrate 99999999999"), "Conversion of baudrate failed");
    EXPECT_EQ(errorOf<SerialOpenOptions>("xonxoff  on"), "Conversion of xonxoff failed");
    EXPECT_EQ(errorOf<UsbOpenOptions>("baudrate x"), "Conversion of baudrate failed");
    EXPECT_EQ(errorOf<EnumerationOptions>("find-usb-pid 1\nfind-usb-pid z"),
              "Conversion of find-usb-pid failed");
    EXPECT_EQ(errorOf<EnumerationOptions>("include-locator maybe"), "Conversion of include-locator failed");
}

// Strict: off by default, a boolean literal (false ones leave it off), and
// rejects the first key the set does not read.
TEST(OptionSets, StrictRejectsTheFirstKeyTheSetDoesNotRead) {
    for (const char* off : {"bogus 1\nother", "strict off\nbogus", "strict 0\nbogus", "strict false\nbogus"})
        EXPECT_EQ(errorOf<SerialOpenOptions>(off), "no exception") << off;
    for (const char* bad : {"strict yes", "strict TRUE", "strict 2"})
        EXPECT_THROW(SerialOpenOptions::parse(bad), std::invalid_argument) << bad;
    EXPECT_EQ(errorOf<SerialOpenOptions>("strict\nbogus 1\nother"), "Unknown option: bogus");
    EXPECT_EQ(errorOf<SerialOpenOptions>("other\nstrict true\nbogus"), "Unknown option: other");
    EXPECT_EQ(errorOf<SerialOpenOptions>("strict 1\nbaudrate 3\nbogus"), "Unknown option: bogus");
    EXPECT_EQ(errorOf<SerialOpenOptions>("strict on\nbaudrate 3\nxonxoff"), "no exception");
    EXPECT_EQ(errorOf<UsbOpenOptions>("strict\nbaudrate 9600"), "no exception");
    EXPECT_EQ(errorOf<NetworkOpenOptions>("strict\nbaudrate 9600"), "Unknown option: baudrate");
    EXPECT_EQ(errorOf<GlobalOptions>("strict\niface network:all"), "Unknown option: iface");
}

// Include keys come from the record key lists, "protocol-idusb-desc" as one key.
TEST(OptionSets, StrictKnowsTheIncludeAndOnlyKeysOfTheRecordKeyLists) {
    EXPECT_EQ(errorOf<EnumerationOptions>("strict\ninclude-protocol-idusb-desc\ninclude-device-info"),
              "no exception");
    EXPECT_EQ(errorOf<EnumerationOptions>("strict\ninclude-usb-desc"), "Unknown option: include-usb-desc");
    EXPECT_EQ(errorOf<InterfaceEnumerationOptions>("strict\nonly-serial-port\ninclude-network-subnet-mask"),
              "no exception");
}

TEST(InterfaceEnumerationOptions, AtMostOneOnlyOptionIsTrue) {
    const char* onlyOne = "Only one only-* option may be set";
    EXPECT_EQ(errorOf<InterfaceEnumerationOptions>("only-name\nonly-serial-port"), onlyOne);
    EXPECT_EQ(errorOf<InterfaceEnumerationOptions>("only-iface-type\nonly-network-host 1"), onlyOne);
    EXPECT_EQ(InterfaceEnumerationOptions::parse("only-name\nonly-serial-port false").only, "name");
    EXPECT_EQ(InterfaceEnumerationOptions::parse("only-all").only, "all");
    EXPECT_FALSE(InterfaceEnumerationOptions::parse("").only.has_value());
}

TEST(EnumerationOptions, IncludeKeysFollowRecordKeyOrderOnce) {
    const auto e = EnumerationOptions::parse(
        "include-protocol-id\ninclude-locator\ninclude-usb-vid\ninclude-all 0\ninclude-iface-type on");
    EXPECT_EQ(e.include, (Strings{"iface-type", "locator", "usb-vid", "protocol-id"}));
    const auto i =
        InterfaceEnumerationOptions::parse("include-serial-port\ninclude-name\niface-type network");
    EXPECT_EQ(i.include, (Strings{"name", "serial-port"}));
    EXPECT_EQ(i.ifaceType, (Strings{"network"}));
}

TEST(EnumerationOptions, IfaceTypeSelectsLinksByExactNameAndNoneOrAllSelectsEvery) {
    const auto selected = [](const char* text) {
        const auto e = EnumerationOptions::parse(text);
        return std::string(e.selects("usb") ? "u" : "") + (e.selects("network") ? "n" : "") +
               (e.selects("serial") ? "s" : "");
    };
    EXPECT_EQ(selected(""), "uns");
    EXPECT_EQ(selected("iface-type all"), "uns");
    EXPECT_EQ(selected("iface-type serial"), "s");
    EXPECT_EQ(selected("iface-type usb\niface-type network"), "un");
    EXPECT_EQ(selected("iface-type Serial"), "");
}
