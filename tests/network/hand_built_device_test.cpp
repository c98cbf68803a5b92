// A network device written in the test from the datagram layout alone, with
// none of the library's packet code: the library must find it on loopback,
// open it by serial number, exchange bytes with it, and raise events when it
// appears and when it stops answering.

#include "discovery/nd_test_support.h"
#include "network/api_support.h"
#include "support/tcp_peer.h"
#include "support/wine.h"

namespace kmiotest {
namespace {

TEST(HandBuiltDevice, IsFoundOpenedBySerialNumberAndReportedAsItComesAndGoes) {
    if (runningUnderWine()) {
        GTEST_SKIP() << kWineHearsNoLoopbackBroadcasts;  // the device announces itself by broadcast
    }
    EventLog events;
    ASSERT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:127.0.0.1"), KM_IO_OK);
    const kmiotest::TcpPeer echo;
    kmiotest::Responder device("NE0HAND", echo.port(), "hand");
    device.announce();
    const std::string record =
        deviceLine("NE0HAND", echo.port(), "network:sn:NE0HAND", "1", "127.0.0.1", "127.0.0.1", "hand");
    ASSERT_EQ(events.waitFor(1), 1u);
    EXPECT_EQ(events.at(0), std::make_pair(1u, record));

    std::uint32_t rc = 0;
    EXPECT_EQ(enumerate(kLoopbackEnumeration + "include-all\nforce-rescan 1", rc), record);
    EXPECT_EQ(rc, KM_IO_OK);
    expectEcho("network:sn:NE0HAND", "");

    // A device that no longer answers is dropped by the next pass.
    device.setSilent(true);
    EXPECT_EQ(enumerate(kLoopbackEnumeration + "only-locator\nforce-rescan 1", rc), "");
    ASSERT_EQ(events.waitFor(2), 2u);
    EXPECT_EQ(events.at(1), std::make_pair(2u, record));
    EXPECT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:none"), KM_IO_OK);
}

}  // namespace
}  // namespace kmiotest
