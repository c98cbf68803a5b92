// The simulated driver through its entry points, loaded by the driver's name.

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "sim_fixture.h"

namespace kmiotest {
namespace {

using namespace kmio::d2xx;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST_F(SimTest, ListIsASnapshotWithFlagsIdsAndTexts) {
    ASSERT_TRUE(
        sim.addChip("serial=A1 description=\"Kalomet DRV-I\" type=6 highspeed=1 vid=0x1234 pid=42 "
                    "location=77"));
    ASSERT_TRUE(sim.addChip("serial=B2"));
    std::uint32_t count = 0;
    ASSERT_EQ(ft.FT_CreateDeviceInfoList(&count), 0u);
    ASSERT_EQ(count, 2u);
    ASSERT_TRUE(sim.addChip("serial=C3"));  // not in the snapshot taken above
    std::vector<FT_DEVICE_LIST_INFO_NODE> nodes(3);
    ASSERT_EQ(ft.FT_GetDeviceInfoList(nodes.data(), &count), 0u);
    ASSERT_EQ(count, 2u);

    EXPECT_STREQ(nodes[0].SerialNumber, "A1");
    EXPECT_STREQ(nodes[0].Description, "Kalomet DRV-I");
    EXPECT_EQ(nodes[0].Type, 6u);
    EXPECT_EQ(nodes[0].Flags, kFlagHighSpeed);
    EXPECT_EQ(nodes[0].ID, 0x1234002Au);
    EXPECT_EQ(nodes[0].LocId, 77u);
    EXPECT_EQ(nodes[0].ftHandle, nullptr);
    EXPECT_STREQ(nodes[1].SerialNumber, "B2");
    EXPECT_STREQ(nodes[1].Description, "FT232R USB UART");
    EXPECT_EQ(nodes[1].Type, 5u);
    EXPECT_EQ(nodes[1].Flags, 0u);
    EXPECT_EQ(nodes[1].ID, 0x04036001u);

    ChipHandle b(ft, openBySerial("B2"));
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
        ChipHandle open(ft, handle);
        EXPECT_EQ(sim.callLog("S2"), c.logged);
        EXPECT_EQ(sim.callLog("S1"), "");
        // One handle per chip: a second open is refused until the first is closed.
        FT_HANDLE second = nullptr;
        EXPECT_EQ(c.open(&second), kDeviceNotOpened);
        EXPECT_EQ(sim.openHandles(), 1u);
        EXPECT_EQ(open.close(), 0u);
        ASSERT_EQ(c.open(&second), 0u);
        EXPECT_EQ(ft.FT_Close(second), 0u);
    }
}

TEST_F(SimTest, OpenRefusesWhatItCannotFind) {
    ASSERT_TRUE(sim.addChip("serial=S1"));
    ASSERT_EQ(list().size(), 1u);
    FT_HANDLE handle = nullptr;
    std::string unknown = "NOPE";
    EXPECT_EQ(ft.FT_Open(1, &handle), kDeviceNotFound);
    EXPECT_EQ(ft.FT_Open(-1, &handle), kDeviceNotFound);
    EXPECT_EQ(ft.FT_OpenEx(unknown.data(), kOpenBySerialNumber, &handle), kDeviceNotFound);
    EXPECT_EQ(ft.FT_OpenEx(unknown.data(), 8, &handle), kInvalidParameter);
    ASSERT_TRUE(sim.unplug("S1"));
    EXPECT_EQ(ft.FT_Open(0, &handle), kDeviceNotFound);  // still in the snapshot, but gone
    EXPECT_EQ(ft.FT_Close(reinterpret_cast<FT_HANDLE>(std::uintptr_t{12345})), kInvalidHandle);
}

TEST_F(SimTest, ReadWaitsForTheCountOrTheTimeOut) {
    ASSERT_TRUE(sim.addChip("serial=R1 echo=0"));
    ChipHandle chip(ft, openBySerial("R1"));
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

// A receive event as a program on Linux sets it up.
struct ReceiveEvent {
    EVENT_HANDLE handle{};
    ReceiveEvent() {
        pthread_mutex_init(&handle.eMutex, nullptr);
        pthread_cond_init(&handle.eCondVar, nullptr);
    }
    ~ReceiveEvent() {
        pthread_cond_destroy(&handle.eCondVar);
        pthread_mutex_destroy(&handle.eMutex);
    }

    // Waits under the event's mutex, starting `trigger` once waiting, until
    // a signal came and `done` holds (checked under the mutex), or `limitMs`
    // pass; true when a signal ended it.
    bool waitFor(const std::function<void()>& trigger, const std::function<bool()>& done, int limitMs) {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += limitMs / 1000;
        deadline.tv_nsec += (limitMs % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        pthread_mutex_lock(&handle.eMutex);
        // The trigger runs on its own thread and reaches the driver while
        // this one holds the mutex, so a signal can only come once it waits.
        // The bytes may be queued before this thread waits, so it always
        // waits at least once.
        std::thread triggering(trigger);
        bool signalled = false;
        do {
            if (pthread_cond_timedwait(&handle.eCondVar, &handle.eMutex, &deadline) == ETIMEDOUT) {
                break;
            }
            signalled = true;
        } while (!done());
        pthread_mutex_unlock(&handle.eMutex);
        triggering.join();
        return signalled && done();
    }
};

TEST_F(SimTest, ReceivedBytesSignalTheEventHandle) {
    ASSERT_TRUE(sim.addChip("serial=E1"));
    ChipHandle chip(ft, openBySerial("E1"));
    ReceiveEvent event;
    ASSERT_EQ(ft.FT_SetEventNotification(chip.get(), kEventRxChar, &event.handle), 0u);
    const auto queued = [&](std::uint32_t expected) {
        return [this, &chip, expected] {
            std::uint32_t rx = 0, tx = 0, status = 0;
            return ft.FT_GetStatus(chip.get(), &rx, &tx, &status) == 0 && rx == expected;
        };
    };

    EXPECT_TRUE(event.waitFor([&] { sim.feed("E1", "hello"); }, queued(5), 10000)) << "Feed";
    EXPECT_EQ(readQueued(chip.get()), "hello");
    EXPECT_TRUE(event.waitFor([&] { write(chip.get(), "echo!!"); }, queued(6), 10000)) << "echo";
    EXPECT_EQ(readQueued(chip.get()), "echo!!");
    EXPECT_TRUE(event.waitFor([&] { sim.signalEvent("E1"); }, [] { return true; }, 10000)) << "SignalEvent";

    // With notification turned off nothing is signalled.
    ASSERT_EQ(ft.FT_SetEventNotification(chip.get(), 0, &event.handle), 0u);
    EXPECT_FALSE(event.waitFor([&] { sim.feed("E1", "x"); }, queued(100), 200));
}

TEST_F(SimTest, UnpluggedChipAnswersIoErrorUntilClosed) {
    ASSERT_TRUE(sim.addChip("serial=U1"));
    ChipHandle chip(ft, openBySerial("U1"));
    ASSERT_EQ(ft.FT_SetTimeouts(chip.get(), 0, 0), 0u);  // reads wait without limit
    std::uint32_t got = 0;
    char buffer[4];
    std::thread unplugging([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sim.unplug("U1");
    });
    EXPECT_EQ(ft.FT_Read(chip.get(), buffer, sizeof buffer, &got), kIoError);  // wakes a blocked read
    unplugging.join();

    std::uint32_t rx = 0, tx = 0, events = 0;
    EXPECT_EQ(ft.FT_GetStatus(chip.get(), &rx, &tx, &events), kIoError);
    EXPECT_EQ(write(chip.get(), "x"), kIoError);
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 9600), kIoError);
    EXPECT_EQ(ft.FT_Purge(chip.get(), 3), kIoError);
    EXPECT_FALSE(sim.feed("U1", "x"));
    EXPECT_FALSE(sim.unplug("U1"));
    EXPECT_TRUE(list().empty());
    EXPECT_EQ(chip.close(), 0u);
    EXPECT_EQ(sim.callLog("U1"),
              "FT_OpenEx\nFT_SetTimeouts 0 0\nFT_SetBaudRate 9600\nFT_Purge 3\nFT_Close\n");

    // The serial number can be plugged in again as a new chip.
    EXPECT_TRUE(sim.addChip("serial=U1"));
    EXPECT_EQ(sim.callLog("U1"), "");
}

TEST_F(SimTest, ResetLeavesOpenHandlesDeadButClosable) {
    ASSERT_TRUE(sim.addChip("serial=Z1"));
    ChipHandle chip(ft, openBySerial("Z1"));
    ASSERT_TRUE(sim.reset());
    EXPECT_TRUE(list().empty());
    EXPECT_EQ(write(chip.get(), "x"), kIoError);
    EXPECT_EQ(sim.openHandles(), 1u);
    EXPECT_EQ(chip.close(), 0u);
}

TEST_F(SimTest, EchoOrKeepWhatTheHostWrites) {
    ASSERT_TRUE(sim.addChip("serial=W1"));
    ChipHandle chip(ft, openBySerial("W1"));
    ASSERT_EQ(write(chip.get(), "ping"), 0u);
    EXPECT_EQ(readQueued(chip.get()), "ping");
    EXPECT_EQ(sim.takeWritten("W1"), "");

    ASSERT_TRUE(sim.setEcho("W1", false));
    ASSERT_EQ(write(chip.get(), "one,"), 0u);
    ASSERT_EQ(write(chip.get(), "two"), 0u);
    EXPECT_EQ(readQueued(chip.get()), "");
    EXPECT_EQ(sim.takeWritten("W1"), "one,two");
    EXPECT_EQ(sim.takeWritten("W1"), "");
    EXPECT_FALSE(sim.setEcho("NOPE", true));
}

TEST_F(SimTest, PurgeDropsReceivedBytes) {
    ASSERT_TRUE(sim.addChip("serial=P1"));
    ChipHandle chip(ft, openBySerial("P1"));
    ASSERT_TRUE(sim.feed("P1", "stale"));
    ASSERT_EQ(ft.FT_Purge(chip.get(), kPurgeTx), 0u);
    std::uint32_t rx = 0, tx = 0, events = 0;
    ASSERT_EQ(ft.FT_GetStatus(chip.get(), &rx, &tx, &events), 0u);
    EXPECT_EQ(rx, 5u);
    ASSERT_EQ(ft.FT_Purge(chip.get(), kPurgeRx | kPurgeTx), 0u);
    EXPECT_EQ(readQueued(chip.get()), "");
}

TEST_F(SimTest, StreamDeliversTheCountedPatternAsFastAsRead) {
    ASSERT_TRUE(sim.addChip("serial=T1"));
    ChipHandle chip(ft, openBySerial("T1"));
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

TEST_F(SimTest, ConcurrentEchoKeepsEveryByteInOrder) {
    ASSERT_TRUE(sim.addChip("serial=C1"));
    ChipHandle chip(ft, openBySerial("C1"));
    ASSERT_EQ(ft.FT_SetTimeouts(chip.get(), 5000, 100), 0u);
    constexpr std::size_t kTotal = 1 << 20;
    std::thread writer([&] {
        std::string block(1000, '\0');
        for (std::size_t sent = 0; sent < kTotal; sent += block.size()) {
            for (std::size_t i = 0; i < block.size(); ++i) {
                block[i] = static_cast<char>((sent + i) % 253);
            }
            block.resize(std::min<std::size_t>(1000, kTotal - sent));
            write(chip.get(), block);
        }
    });
    std::string received;
    std::vector<char> buffer(4096);
    while (received.size() < kTotal) {
        std::uint32_t got = 0;
        ASSERT_EQ(ft.FT_Read(chip.get(), buffer.data(), static_cast<std::uint32_t>(buffer.size()), &got), 0u);
        if (got == 0) {
            break;
        }
        received.append(buffer.data(), got);
    }
    writer.join();
    ASSERT_EQ(received.size(), kTotal);
    std::size_t mismatches = 0;
    for (std::size_t i = 0; i < kTotal; ++i) {
        mismatches += static_cast<unsigned char>(received[i]) != i % 253;
    }
    EXPECT_EQ(mismatches, 0u);
}

TEST_F(SimTest, EepromWordsAndUserArea) {
    ASSERT_TRUE(sim.addChip(R"(serial=M1 ee43=0x1234 ee44=43981 ua="KMIO\x0b tail")"));
    ASSERT_TRUE(sim.addChip("serial=M2"));
    ChipHandle chip(ft, openBySerial("M1"));
    ChipHandle plain(ft, openBySerial("M2"));
    std::uint16_t word = 0;
    ASSERT_EQ(ft.FT_ReadEE(chip.get(), 0x43, &word), 0u);
    EXPECT_EQ(word, 0x1234);
    ASSERT_EQ(ft.FT_ReadEE(chip.get(), 0x44, &word), 0u);
    EXPECT_EQ(word, 0xABCD);
    ASSERT_EQ(ft.FT_ReadEE(chip.get(), 0x42, &word), 0u);
    EXPECT_EQ(word, 0xFFFF);
    ASSERT_EQ(ft.FT_ReadEE(plain.get(), 0x43, &word), 0u);
    EXPECT_EQ(word, 0xFFFF);

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
}

TEST_F(SimTest, BaudRateOutsideTheChipsRangeIsRejected) {
    ASSERT_TRUE(sim.addChip("serial=B1"));
    ChipHandle chip(ft, openBySerial("B1"));
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 0), kInvalidBaudRate);
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 12000001), kInvalidBaudRate);
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 12000000), 0u);
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 300), 0u);
}

TEST_F(SimTest, ChipIdLibraryReportsTheConfiguredIds) {
    FtdiSimChipId chipIds;
    ASSERT_TRUE(sim.addChip("serial=I1 chipid=3735928559"));
    ASSERT_TRUE(sim.addChip("serial=I2"));
    std::uint32_t count = 0;
    ASSERT_EQ(chipIds.FTID_GetNumDevices(&count), 0u);
    EXPECT_EQ(count, 2u);
    ChipHandle withId(ft, openBySerial("I1"));
    ChipHandle without(ft, openBySerial("I2"));
    std::uint32_t id = 0;
    ASSERT_EQ(chipIds.FTID_GetChipIDFromHandle(withId.get(), &id), 0u);
    EXPECT_EQ(id, 3735928559u);
    EXPECT_EQ(chipIds.FTID_GetChipIDFromHandle(without.get(), &id), kInvalidHandle);
    ASSERT_TRUE(sim.fail("FTID_GetChipIDFromHandle", kOtherError, 1));
    EXPECT_EQ(chipIds.FTID_GetChipIDFromHandle(withId.get(), &id), kOtherError);
    ASSERT_TRUE(sim.fail("FTID_GetNumDevices", kIoError, 1));
    EXPECT_EQ(chipIds.FTID_GetNumDevices(&count), kIoError);
    ASSERT_TRUE(sim.unplug("I1"));
    EXPECT_EQ(chipIds.FTID_GetChipIDFromHandle(withId.get(), &id), kIoError);
    ASSERT_EQ(chipIds.FTID_GetNumDevices(&count), 0u);
    EXPECT_EQ(count, 1u);
}

}  // namespace
}  // namespace kmiotest
