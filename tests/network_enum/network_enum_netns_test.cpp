// Enumeration and events over two separate networks, each with a simulated
// device of the same serial number.

#include <set>

#include "netns/netns_fixture.h"
#include "network_enum/api_support.h"
#include "options/locator.h"

namespace kmiotest {
namespace {

TEST_F(NetnsTest, DeviceOnTwoInterfacesIsListedAndReportedOncePerInterface) {
    EventLog events;
    {
        const ScopedNetns inside(netns_->hostNamespace());
        ASSERT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:all\nlocator-format-network host"),
                  KM_IO_OK);
    }
    std::set<std::string> expected;
    for (int i = 0; i < NetnsFixture::kDevices; ++i) {
        netns_->startSimulator(i, {"--serial-prefix", "NE", "--first-port", "56500"});
        const std::string device = kmio::formatIpv4(NetnsFixture::deviceAddress(i));
        expected.insert("iface-type=network|network-host=" + device +
                        "|network-port=56500|device-type=7|device-sn=NE0001|available=1|protocol-id=42|"
                        "locator=network:" +
                        device + ":56500|iface=network:" + kmio::formatIpv4(NetnsFixture::hostAddress(i)) +
                        "|device-info=kmio-sim");
    }
    ASSERT_EQ(events.waitFor(2), 2u);
    std::set<std::string> reported;
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(events.at(i).first, 1u);
        reported.insert(events.at(i).second);
    }
    EXPECT_EQ(reported, expected);

    const ScopedNetns inside(netns_->hostNamespace());
    std::uint32_t rc = 0;
    const std::string listed = enumerate("iface network:all\nlocator-format-network host\ninclude-all", rc);
    EXPECT_EQ(listed, *expected.begin() + "\n" + *expected.rbegin());
    EXPECT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:none"), KM_IO_OK);
}

}  // namespace
}  // namespace kmiotest
