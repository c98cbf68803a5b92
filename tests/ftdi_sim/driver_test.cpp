// The simulated driver through its entry points, loaded by the driver's name.

#include <chrono>
#include <functional>
#include <thread>
#include <tuple>

#include "sim_fixture.h"

namespace kmiotest {
namespace {

using namespace kmio::d2xx;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// The chip lines' fields in the list are control_test.cpp's part.
TEST_F(SimTest, ListIsASnapshotWithOpenedChipsFlagged) {
    ASSERT_TRUE(sim.addChip("serial=A1"));
    ASSERT_TRUE(sim.addChip("serial=B2"));
    std::uint32_t count = 0;
    ASSERT_EQ(ft.FT_CreateDeviceInfoList(&count), 0u);
    ASSERT_EQ(count, 2u);
    ASSERT_TRUE(sim.addChip("serial=C3"));  // not in the snapshot taken above
    std::vector<FT_DEVICE_LIST_INFO_NODE> nodes(3);
    ASSERT_EQ(ft.FT_GetDeviceInfoList(nodes.data(), &count), 0u);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(nodes[1].SerialNumber, "B2");
    EXPECT_EQ(nodes[1].ftHandle, nullptr);

    const FtdiHandle b = openBySerial("B2");
    ASSERT_TRUE(sim.unplug("A1"));
    const auto later = list();
    ASSERT_EQ(later.size(), 2u);
    EXPECT_STREQ(later[0].SerialNumber, "B2");
    EXPECT_EQ(later[0].Flags, kFlagOpened);
    EXPECT_EQ(later[0].ftHandle, b.get());
    EXPECT_STREQ(later[1].SerialNumber, "C3");
    EXPECT_EQ(later[1].Flags, 0u);
}

TEST_F(SimTest, OpensTheChipNamedByIndexSerialDescriptionOrLocation) {
    ASSERT_TRUE(sim.addChip("serial=S1 description=First location=5"));
    ASSERT_TRUE(sim.addChip("serial=S2 description=Second location=6"));
    ASSERT_EQ(list().size(), 2u);
    std::string serial2 = "S2", description2 = "Second";
    const struct {
        const char* how;
        std::function<FT_STATUS(FT_HANDLE*)> open;
        const char* logged;
    } cases[] = {
        {"index", [&](FT_HANDLE* h) { return ft.FT_Open(1, h); }, "FT_Open\n"},
        {"serial", [&](FT_HANDLE* h) { return ft.FT_OpenEx(serial2.data(), kOpenBySerialNumber, h); },
         "FT_OpenEx\n"},
        {"description",
         [&](FT_HANDLE* h) { return ft.FT_OpenEx(description2.data(), kOpenByDescription, h); },
         "FT_OpenEx\n"},
        {"location",
         [&](FT_HANDLE* h) {
             return ft.FT_OpenEx(reinterpret_cast<void*>(std::uintptr_t{6}), kOpenByLocation, h);
         },
         "FT_OpenEx\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        ASSERT_TRUE(sim.clearCallLog("S1") && sim.clearCallLog("S2"));
        FT_HANDLE handle = nullptr;
        ASSERT_EQ(c.open(&handle), 0u);
        EXPECT_EQ(sim.callLog("S2"), c.logged);
        EXPECT_EQ(sim.callLog("S1"), "");
        // One handle per chip: a second open is refused until the first is closed.
        FT_HANDLE second = nullptr;
        EXPECT_EQ(c.open(&second), kDeviceNotOpened);
        EXPECT_EQ(sim.openHandles(), 1u);
        EXPECT_EQ(ft.FT_Close(handle), 0u);
        ASSERT_EQ(c.open(&second), 0u);
        EXPECT_EQ(ft.FT_Close(second), 0u);
    }

    // What it cannot find.
    std::string unknown = "NOPE";
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(ft.FT_Open(2, &handle), kDeviceNotFound);
    EXPECT_EQ(ft.FT_Open(-1, &handle), kDeviceNotFound);
    EXPECT_EQ(ft.FT_OpenEx(unknown.data(), kOpenBySerialNumber, &handle), kDeviceNotFound);
    EXPECT_EQ(ft.FT_OpenEx(unknown.data(), 8, &handle), kInvalidParameter);
    ASSERT_TRUE(sim.unplug("S1"));
    EXPECT_EQ(ft.FT_Open(0, &handle), kDeviceNotFound);  // still in the snapshot, but gone
    EXPECT_EQ(ft.FT_Close(reinterpret_cast<FT_HANDLE>(std::uintptr_t{12345})), kInvalidHandle);
}

TEST_F(SimTest, ReadWaitsForTheCountOrTheTimeOut) {
    ASSERT_TRUE(sim.addChip("serial=R1 echo=0"));
    const FtdiHandle chip = openBySerial("R1");
    char buffer[16] = {};
    std::uint32_t got = 99;

    ASSERT_EQ(ft.FT_SetTimeouts(chip.get(), 100, 100), 0u);
    auto start = Clock::now();
    ASSERT_EQ(ft.FT_Read(chip.get(), buffer, 10, &got), 0u);
    EXPECT_EQ(got, 0u);
    EXPECT_GE(msSince(start), 90);

    ASSERT_TRUE(sim.feed("R1", "abcd"));
    start = Clock::now();
    ASSERT_EQ(ft.FT_Read(chip.get(), buffer, 10, &got), 0u);
    EXPECT_EQ(std::string(buffer, got), "abcd");
    EXPECT_GE(msSince(start), 90);

    // The count queued: no waiting for the (long) time-out.
    ASSERT_EQ(ft.FT_SetTimeouts(chip.get(), 20000, 100), 0u);
    ASSERT_TRUE(sim.feed("R1", "0123456789"));
    start = Clock::now();
    ASSERT_EQ(ft.FT_Read(chip.get(), buffer, 10, &got), 0u);
    EXPECT_EQ(std::string(buffer, got), "0123456789");
    EXPECT_LT(msSince(start), 10000);

    // Bytes that arrive during the read complete it.
    std::thread device([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sim.feed("R1", "wxy");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sim.feed("R1", "z");
    });
    ASSERT_EQ(ft.FT_Read(chip.get(), buffer, 4, &got), 0u);
    device.join();
    EXPECT_EQ(std::string(buffer, got), "wxyz");
}

TEST_F(SimTest, UnpluggedOrResetChipAnswersIoErrorUntilClosed) {
    ASSERT_TRUE(sim.addChip("serial=U1"));
    FT_HANDLE chip = openRaw("U1");
    ASSERT_EQ(ft.FT_SetTimeouts(chip, 0, 0), 0u);  // reads wait without limit
    std::uint32_t got = 0;
    char buffer[4];
    std::thread unplugging([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sim.unplug("U1");
    });
    EXPECT_EQ(ft.FT_Read(chip, buffer, sizeof buffer, &got), kIoError);  // wakes a blocked read
    unplugging.join();

    std::uint32_t rx = 0, tx = 0, events = 0;
    EXPECT_EQ(ft.FT_GetStatus(chip, &rx, &tx, &events), kIoError);
    EXPECT_EQ(ft.FT_Write(chip, buffer, 1, &got), kIoError);
    EXPECT_EQ(ft.FT_SetBaudRate(chip, 9600), kIoError);
    EXPECT_EQ(ft.FT_Purge(chip, 3), kIoError);
    EXPECT_FALSE(sim.feed("U1", "x"));
    EXPECT_FALSE(sim.unplug("U1"));
    EXPECT_TRUE(list().empty());
    EXPECT_EQ(ft.FT_Close(chip), 0u);
    EXPECT_EQ(sim.callLog("U1"),
              "FT_OpenEx\nFT_SetTimeouts 0 0\nFT_SetBaudRate 9600\nFT_Purge 3\nFT_Close\n");

    // The serial number can be plugged in again as a new chip; a reset
    // leaves its open handle just as dead, and closable.
    EXPECT_TRUE(sim.addChip("serial=U1"));
    EXPECT_EQ(sim.callLog("U1"), "");
    chip = openRaw("U1");
    ASSERT_TRUE(sim.reset());
    EXPECT_TRUE(list().empty());
    EXPECT_EQ(ft.FT_Write(chip, buffer, 1, &got), kIoError);
    EXPECT_EQ(sim.openHandles(), 1u);
    EXPECT_EQ(ft.FT_Close(chip), 0u);
}

TEST_F(SimTest, EchoOrKeepWhatTheHostWritesAndPurgeDropsWhatCameIn) {
    ASSERT_TRUE(sim.addChip("serial=W1"));
    const FtdiHandle chip = openBySerial("W1");
    ASSERT_EQ(write(chip, "ping"), 0u);
    EXPECT_EQ(readQueued(chip), "ping");
    EXPECT_EQ(sim.takeWritten("W1"), "");

    ASSERT_TRUE(sim.setEcho("W1", false));
    ASSERT_EQ(write(chip, "one,"), 0u);
    ASSERT_EQ(write(chip, "two"), 0u);
    EXPECT_EQ(readQueued(chip), "");
    EXPECT_EQ(sim.takeWritten("W1"), "one,two");
    EXPECT_EQ(sim.takeWritten("W1"), "");

    ASSERT_TRUE(sim.feed("W1", "stale"));
    ASSERT_EQ(ft.FT_Purge(chip.get(), kPurgeTx), 0u);
    std::uint32_t rx = 0, tx = 0, events = 0;
    ASSERT_EQ(ft.FT_GetStatus(chip.get(), &rx, &tx, &events), 0u);
    EXPECT_EQ(rx, 5u);
    ASSERT_EQ(ft.FT_Purge(chip.get(), kPurgeRx | kPurgeTx), 0u);
    EXPECT_EQ(readQueued(chip), "");
}

TEST_F(SimTest, StreamDeliversTheCountedPatternAsFastAsRead) {
    ASSERT_TRUE(sim.addChip("serial=T1"));
    const FtdiHandle chip = openBySerial("T1");
    ASSERT_EQ(ft.FT_SetTimeouts(chip.get(), 100, 100), 0u);
    constexpr std::uint64_t kTotal = 200000;  // three full steps and a partial one
    ASSERT_TRUE(sim.stream("T1", kTotal));
    std::uint64_t received = 0;
    std::uint64_t mismatches = 0;
    std::vector<unsigned char> buffer(5000);
    for (;;) {
        std::uint32_t got = 0;
        ASSERT_EQ(ft.FT_Read(chip.get(), buffer.data(), static_cast<std::uint32_t>(buffer.size()), &got), 0u);
        for (std::uint32_t i = 0; i < got; ++i) {
            mismatches += buffer[i] != (received + i) % 251;
        }
        received += got;
        if (got < buffer.size()) {
            break;  // the read timed out: the stream is over
        }
    }
    EXPECT_EQ(received, kTotal);
    EXPECT_EQ(mismatches, 0u);
}

TEST_F(SimTest, EepromWordsUserAreaAndBaudRateRange) {
    ASSERT_TRUE(sim.addChip(R"(serial=M1 ee43=0x1234 ee44=43981 ua="KMIO\x0b tail")"));
    ASSERT_TRUE(sim.addChip("serial=M2"));
    const FtdiHandle chip = openBySerial("M1");
    const FtdiHandle plain = openBySerial("M2");
    for (const auto& [handle, address, value] : {std::tuple{chip.get(), 0x43, 0x1234},
                                                 {chip.get(), 0x44, 0xABCD},
                                                 {chip.get(), 0x42, 0xFFFF},
                                                 {plain.get(), 0x43, 0xFFFF}}) {
        std::uint16_t word = 0;
        ASSERT_EQ(ft.FT_ReadEE(handle, static_cast<std::uint32_t>(address), &word), 0u);
        EXPECT_EQ(word, value) << address;
    }

    std::uint32_t size = 0, got = 0;
    ASSERT_EQ(ft.FT_EE_UASize(chip.get(), &size), 0u);
    ASSERT_EQ(size, 10u);
    std::uint8_t area[32] = {};
    ASSERT_EQ(ft.FT_EE_UARead(chip.get(), area, sizeof area, &got), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area), got), "KMIO\x0b tail");
    ASSERT_EQ(ft.FT_EE_UARead(chip.get(), area, 4, &got), 0u);
    EXPECT_EQ(got, 4u);
    ASSERT_EQ(ft.FT_EE_UASize(plain.get(), &size), 0u);
    EXPECT_EQ(size, 0u);

    std::uint8_t patch[] = {'k', 'm'};
    ASSERT_EQ(ft.FT_EE_UAWrite(chip.get(), patch, 2), 0u);
    ASSERT_EQ(ft.FT_EE_UARead(chip.get(), area, sizeof area, &got), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area), got), "kmIO\x0b tail");
    EXPECT_EQ(ft.FT_EE_UAWrite(plain.get(), patch, 2), kInvalidParameter);

    for (const auto& [rate, status] :
         {std::pair{0u, kInvalidBaudRate}, {12000001u, kInvalidBaudRate}, {12000000u, kOk}, {300u, kOk}}) {
        EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), rate), status) << rate;
    }
}

}  // namespace
}  // namespace kmiotest
