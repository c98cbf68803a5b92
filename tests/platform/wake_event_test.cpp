// What waiting threads rely on: a signalled event polls readable until
// reset, however often it was signalled, from whichever thread.
#include <gtest/gtest.h>
#include <poll.h>

#include <thread>

#include "platform/wake_event.h"

#ifndef WAKE_EVENT_SUITE
#define WAKE_EVENT_SUITE WakeEvent
#endif

namespace kmio {
namespace {

bool readable(const WakeEvent& event, int timeoutMs = 0) {
    pollfd fd{static_cast<int>(event.native()), POLLIN, 0};
    return ::poll(&fd, 1, timeoutMs) == 1 && (fd.revents & POLLIN) != 0;
}

TEST(WAKE_EVENT_SUITE, StaysSignalledUntilResetAndCanBeSignalledAgain) {
    WakeEvent event;
    EXPECT_FALSE(readable(event));
    ASSERT_TRUE(event.signal());
    EXPECT_TRUE(readable(event));
    EXPECT_TRUE(readable(event)) << "a second waiter must see the same signal";
    event.reset();
    EXPECT_FALSE(readable(event));
    ASSERT_TRUE(event.signal());
    EXPECT_TRUE(readable(event));
}

// Far more signals than a pipe holds: none blocks or fails, and one reset
// clears them all.
TEST(WAKE_EVENT_SUITE, ManySignalsNeitherBlockNorOutliveOneReset) {
    WakeEvent event;
    for (int i = 0; i < 200000; ++i) {
        ASSERT_TRUE(event.signal()) << i;
    }
    EXPECT_TRUE(readable(event));
    event.reset();
    EXPECT_FALSE(readable(event));
}

TEST(WAKE_EVENT_SUITE, WakesAThreadWaitingWithoutATimeLimit) {
    WakeEvent event;
    bool woken = false;
    std::thread waiter([&] { woken = readable(event, -1); });
    ASSERT_TRUE(event.signal());
    waiter.join();
    EXPECT_TRUE(woken);
}

}  // namespace
}  // namespace kmio
