// Threads live only while devices are open or discovery channels exist.

#include <thread>

#include "hardening/hardening_support.h"
#include "support/process_counts.h"

namespace kmiotest {
namespace {

TEST(ThreadLifetime, ThreadCountReturnsOnceEveryChannelIsGone) {
    const auto sim = startHardeningSimulator(56630);
    // A sanitizer's runtime may start a thread of its own along with the
    // program's first one: make that happen before counting.
    std::thread([] {}).join();
    const std::size_t before = threadCount();
    // Twice: a helper thread that ended must start again when needed.
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:127.0.0.1"), KM_IO_OK);
        std::uint32_t rc = 0;
        EXPECT_EQ(ourLocators(rc), "network:sn:HZ0001");
        EXPECT_GT(threadCount(), before);
        ASSERT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:none"), KM_IO_OK);
        EXPECT_TRUE(eventually([&] { return threadCount() == before; }))
            << "round " << round << ": " << threadCount() << " threads, " << before << " before";
    }
}

}  // namespace
}  // namespace kmiotest
