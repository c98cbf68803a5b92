#include <gtest/gtest.h>

#include "pty_pair.h"

namespace kmio::test {
namespace {

TEST(IoSerialLine, RawEightNOneIsAppliedWithSoftwareFlowControlOnRequest) {
    const struct {
        const char* options;
        speed_t speed;
        bool xonxoff;
    } cases[] = {
        {"baudrate 115200", B115200, false},
        {"baudrate 9600\nxonxoff", B9600, true},
        {"baudrate 1200\nxonxoff false", B1200, false},
    };
    for (const auto& c : cases) {
        PtyPair pty;
        termios cooked{};
        ::tcgetattr(pty.slave.get(), &cooked);
        cooked.c_lflag |= ICANON | ECHO | ISIG;
        cooked.c_cflag |= PARENB | CSTOPB;
        cooked.c_iflag |= ICRNL | IXON;
        cooked.c_oflag |= OPOST;
        ::tcsetattr(pty.slave.get(), TCSANOW, &cooked);

        Sink sink;
        std::uint32_t result = 0;
        auto device = openSerial(pty.locator(), c.options, sink, result);
        ASSERT_EQ(result, KM_IO_OK) << c.options;
        termios applied{};
        ASSERT_EQ(::tcgetattr(pty.slave.get(), &applied), 0);
        EXPECT_EQ(applied.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u) << c.options;
        EXPECT_EQ(applied.c_oflag & OPOST, 0u);
        EXPECT_EQ(applied.c_iflag & ICRNL, 0u);
        EXPECT_EQ(applied.c_cflag & CSIZE, tcflag_t{CS8});
        EXPECT_EQ(applied.c_cflag & (PARENB | CSTOPB), 0u);
        EXPECT_EQ(applied.c_cflag & (CLOCAL | CREAD), tcflag_t{CLOCAL | CREAD});
        EXPECT_EQ(::cfgetospeed(&applied), c.speed);
        EXPECT_EQ(::cfgetispeed(&applied), c.speed);
        const tcflag_t flow = c.xonxoff ? IXON | IXOFF : 0;
        EXPECT_EQ(applied.c_iflag & (IXON | IXOFF), flow) << c.options;
        device->close(true);
    }
}

// Pseudo-terminals accept any rate through termios2, so the rate that has no
// Bnnn constant must come back exactly.
TEST(IoSerialLine, NonStandardRateGoesThroughTermios2) {
    PtyPair pty;
    Sink sink;
    std::uint32_t result = 0;
    auto device = openSerial(pty.locator(), "baudrate 250000", sink, result);
    ASSERT_EQ(result, KM_IO_OK);
    EXPECT_EQ(readBackLineSpeed(pty.slave.get()), 250000u);
    device->close(true);
}

}  // namespace
}  // namespace kmio::test
