#include "options/locator.h"

#include <gtest/gtest.h>

#include "kmio/kmio.h"
#include "options/options_error.h"
#include "support/checks.h"

using namespace kmio;

TEST(Locator, Ipv4TextBothWays) {
    EXPECT_EQ(parseIpv4("10.0.0.5"), 0x0A000005u);
    EXPECT_EQ(parseIpv4("255.255.255.255"), 0xFFFFFFFFu);
    EXPECT_EQ(formatIpv4(0xC0A80114u), "192.168.1.20");
    for (const char* bad : {"", "10.0.0", "10.0.0.5.1", "10.0.0.256", "10.0.0.300", "1..2.3", "+1.2.3.4",
                            " 1.2.3.4", "1.2.3.4 ", "0001.2.3.4", "a.b.c.d", "1.2.3."}) {
        EXPECT_FALSE(parseIpv4(bad).has_value()) << bad;
    }
}

TEST(Locator, InterfaceSelectors) {
    const LocalAddressSource local = [] { return std::vector<Ipv4>{0x0A000001u, 0x7F000001u}; };
    using Result = std::optional<std::set<Ipv4>>;
    const struct {
        std::vector<std::string> entries;
        Result expected;
    } cases[] = {
        {{}, std::set<Ipv4>{}},
        {{"usb:sn:1", "network:10.0.0.7"}, std::set<Ipv4>{0x0A000007u}},
        {{"network:10.0.0.7:5000", "network:10.0.0.7"}, std::set<Ipv4>{0x0A000007u}},
        {{"network:all", "network:10.0.0.1"}, std::set<Ipv4>{0x0A000001u, 0x7F000001u}},
        {{"network:10.0.0.300"}, std::nullopt},
        {{"network:10.0.0.7", "network:0.0.0.0"}, std::nullopt},
        {{"network:", "network:all"}, std::nullopt},
        {{"networkx:1.2.3.4", "Network:1.2.3.4"}, std::set<Ipv4>{}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parseInterfaceSelectors(c.entries, local), c.expected) << c.entries.size();
}

TEST(Locator, FormatsAndWrittenForms) {
    EXPECT_EQ(parseLocatorFormat("sn"), LocatorFormat::BySerialNumber);
    EXPECT_EQ(parseLocatorFormat("host"), LocatorFormat::ByHost);
    for (const char* bad : {"HOST", "", "sn "}) {
        EXPECT_EQ(kmiotest::thrown<OptionsError>([&] { parseLocatorFormat(bad); }),
                  std::string("Unknown locator format: ") + bad);
    }
    EXPECT_EQ(writeNetworkLocator(LocatorFormat::BySerialNumber, "SN 01", 0x0A000005u, 80),
              "network:sn:SN 01");
    EXPECT_EQ(writeNetworkLocator(LocatorFormat::ByHost, "SN", 0x0A000005u, 4000), "network:10.0.0.5:4000");
    EXPECT_EQ(interfaceLocator(0xC0A80001u), "network:192.168.0.1");
}

TEST(Locator, NetworkLocatorGivesHostAndPortOrTheCodeOfItsFault) {
    // The test lookup knows K1, finds K0 without a port (which leaves no port
    // at all), fails with 4 for "BADIFACE" and reports every other as not found.
    std::vector<std::string> asked;
    const SerialNumberResolver resolver = [&](const std::string& sn, const NetworkOpenOptions&,
                                              DiscoveredAddress& found) -> std::uint32_t {
        asked.push_back(sn);
        if (sn == "BADIFACE")
            return KM_IO_ERR_BAD_OPTIONS;
        if (sn != "K1" && sn != "K0")
            return KM_IO_ERR_NOT_FOUND;
        found = {0x0A000009u, sn == "K1" ? std::uint16_t{7000} : std::uint16_t{0}};
        return KM_IO_OK;
    };
    const struct {
        const char* locator;
        std::uint32_t optionPort;
        std::uint32_t rc;
        const char* target = "";
    } cases[] = {
        {"network:192.168.1.20:5000", 0, KM_IO_OK, "192.168.1.20:5000"},
        {"network:192.168.1.20", 5000, KM_IO_OK, "192.168.1.20:5000"},
        {"network:192.168.1.20", 0, KM_IO_ERR_BAD_OPTIONS},
        {"network:192.168.1.20:0", 6000, KM_IO_OK, "192.168.1.20:6000"},
        {"network:h:5000", 6000, KM_IO_OK, "h:5000"},
        {"network:h:65536", 0, KM_IO_ERR_BAD_OPTIONS},
        {"network:h:65535", 0, KM_IO_OK, "h:65535"},
        {"network:h:abc", 0, KM_IO_ERR_BAD_OPTIONS},
        {"network:h:4000x", 0, KM_IO_OK, "h:4000"},
        {"network:h: +80", 0, KM_IO_OK, "h:80"},
        {"network:h:99999999999", 0, KM_IO_ERR_BAD_OPTIONS},
        {"network:h:5000", 70000, KM_IO_ERR_BAD_OPTIONS},
        {"usb:h:5000", 70000, KM_IO_ERR_BAD_OPTIONS},
        {"network:sn", 80, KM_IO_OK, "sn:80"},
        {"network:::10.0.0.1:::", 80, KM_IO_OK, "10.0.0.1:80"},
        {"network:sn:X:1:2", 80, KM_IO_ERR_BAD_LOCATOR},
        {"network:a:b:c", 80, KM_IO_ERR_BAD_LOCATOR},
        {"network", 80, KM_IO_ERR_BAD_LOCATOR},
        {"usbnet:h:80", 0, KM_IO_ERR_BAD_LOCATOR},
        {"Network:h:80", 0, KM_IO_ERR_BAD_LOCATOR},
        {"network:sn:K1", 0, KM_IO_OK, "10.0.0.9:7000"},
        {"network:sn:K1", 6000, KM_IO_OK, "10.0.0.9:6000"},
        {"network:sn:K1:5000", 6000, KM_IO_OK, "10.0.0.9:5000"},
        {"network:sn:K1:0", 0, KM_IO_OK, "10.0.0.9:7000"},
        {"network:sn:K1:x", 0, KM_IO_ERR_BAD_OPTIONS},
        {"network:sn:K2", 0, KM_IO_ERR_NOT_FOUND},
        {"network:sn:BADIFACE", 0, KM_IO_ERR_BAD_OPTIONS},
        {"network:sn:K0", 0, KM_IO_ERR_BAD_OPTIONS},
    };
    for (const auto& c : cases) {
        NetworkOpenOptions options;
        options.port = c.optionPort;
        NetworkTarget target;
        EXPECT_EQ(parseNetworkLocator(c.locator, options, resolver, target), c.rc) << c.locator;
        if (c.rc == KM_IO_OK) {
            EXPECT_EQ(target.host + ":" + std::to_string(target.port), c.target) << c.locator;
        }
    }
    EXPECT_EQ(asked, (std::vector<std::string>{"K1", "K1", "K1", "K1", "K1", "K2", "BADIFACE", "K0"}));
}
