// Network enumeration and discovery events over two separate networks, each
// with a simulated device of the same serial number.

#include <set>

#include "netns/netns_fixture.h"
#include "network_enum/api_support.h"
#include "options/locator.h"

namespace kmiotest {
namespace {

std::string ifaceOf(int i) {
    return "iface=network:" + kmio::formatIpv4(NetnsFixture::hostAddress(i));
}

class NetworkEnumerationNetns : public NetnsTest {
protected:
    void startSimulators() {
        for (int i = 0; i < NetnsFixture::kDevices; ++i) {
            netns_->startSimulator(i, {"--serial-prefix", "NE", "--first-port", "56500"});
        }
    }
};

TEST_F(NetworkEnumerationNetns, DeviceOnTwoInterfacesIsListedOncePerInterface) {
    startSimulators();
    const ScopedNetns inside(netns_->hostNamespace());
    std::uint32_t rc = 0;
    const std::string both = enumerate("iface network:all\ninclude-device-sn\ninclude-iface", rc);
    EXPECT_EQ(rc, KM_IO_OK);
    EXPECT_EQ(both, "device-sn=NE0001|" + ifaceOf(0) + "\ndevice-sn=NE0001|" + ifaceOf(1));
    const std::string second =
        enumerate("iface network:" + kmio::formatIpv4(NetnsFixture::hostAddress(1)) + "\ninclude-all", rc);
    EXPECT_EQ(second, "iface-type=network|network-host=" + kmio::formatIpv4(NetnsFixture::deviceAddress(1)) +
                          "|network-port=56500|device-type=7|device-sn=NE0001|available=1|protocol-id=42|"
                          "locator=network:sn:NE0001|" +
                          ifaceOf(1) + "|device-info=kmio-sim");
    EXPECT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:none"), KM_IO_OK);
}

TEST_F(NetworkEnumerationNetns, GlobalInterfaceAllRaisesEventsFromEveryInterface) {
    EventLog events;
    {
        const ScopedNetns inside(netns_->hostNamespace());
        ASSERT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:all\nlocator-format-network host"),
                  KM_IO_OK);
    }
    startSimulators();
    ASSERT_EQ(events.waitFor(2), 2u);
    std::set<std::string> seen;
    for (std::size_t i = 0; i < 2; ++i) {
        const auto [type, text] = events.at(i);
        EXPECT_EQ(type, 1u);
        seen.insert(text.substr(text.find("|locator=")));
    }
    const auto hostForm = [](int i) {
        return "|locator=network:" + kmio::formatIpv4(NetnsFixture::deviceAddress(i)) + ":56500|" +
               ifaceOf(i) + "|device-info=kmio-sim";
    };
    EXPECT_EQ(seen, (std::set<std::string>{hostForm(0), hostForm(1)}));
    EXPECT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:none"), KM_IO_OK);
}

}  // namespace
}  // namespace kmiotest
