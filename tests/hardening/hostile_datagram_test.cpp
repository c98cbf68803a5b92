// Discovery must stay attentive while a hostile peer floods its ports with
// datagrams too long to receive.

#include "hardening/hardening_support.h"
#include "support/datagram_flood.h"

namespace kmiotest {
namespace {

TEST(HostileDatagrams, OversizedFloodDoesNotHideADevice) {
    const auto sim = startHardeningSimulator(56610);
    // 200 oversized datagrams a second on each port: ten times what a host
    // that pauses after every failed receive could drain.
    const DatagramFlood flood;
    ASSERT_TRUE(eventually([&] { return flood.sent() > 100; }));
    std::uint32_t rc = 0;
    // The first call makes the channel, which the flood then reaches too.
    ourLocators(rc);
    for (int pass = 0; pass < 3; ++pass) {
        EXPECT_EQ(ourLocators(rc), "network:sn:HZ0001")
            << "pass " << pass << " with " << flood.sent() << " datagrams sent";
        EXPECT_EQ(rc, KM_IO_OK);
    }
}

}  // namespace
}  // namespace kmiotest
