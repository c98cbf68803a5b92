// Enumeration and events over two separate networks, each with a simulated
// device of the same serial number.

#include <set>

#include "netns/netns_fixture.h"
#include "network/api_support.h"
#include "options/locator.h"

namespace kmiotest {
namespace {

TEST_F(NetnsTest, DeviceOnTwoInterfacesIsListedAndReportedOncePerInterface) {
    EventLog events;
    const ScopedNetns inside(host_);
    ASSERT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:all\nlocator-format-network host"), KM_IO_OK);
    std::set<std::string> expected;
    for (int i = 0; i < kDevices; ++i) {
        startSimulator(i, {"--serial-prefix", "NE", "--first-port", "56500"});
        const std::string device = kmio::formatIpv4(deviceAddress(i));
        expected.insert(deviceLine("NE0001", 56500, "network:" + device + ":56500", "1", device,
                                   kmio::formatIpv4(hostAddress(i))));
    }
    ASSERT_EQ(events.waitFor(2), 2u);
    std::set<std::string> reported;
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(events.at(i).first, 1u);
        reported.insert(events.at(i).second);
    }
    EXPECT_EQ(reported, expected);

    std::uint32_t rc = 0;
    EXPECT_EQ(enumerate("iface network:all\nlocator-format-network host\ninclude-all", rc),
              *expected.begin() + "\n" + *expected.rbegin());
    EXPECT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:none"), KM_IO_OK);
}

}  // namespace
}  // namespace kmiotest
