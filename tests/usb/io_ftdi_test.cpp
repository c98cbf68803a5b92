// IoFtdi against the simulated driver: the open sequence and its failures,
// data both ways, link errors, send time limit, close and "ftdi-id".
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/checks.h"
#include "usb_sim_fixture.h"

namespace kmiotest {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace d2xx = kmio::d2xx;

std::int64_t millisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

using IoFtdiTest = UsbSimTest;

TEST_F(IoFtdiTest, OpenFailuresGiveTheirCodesAndLeaveNoChipOpen) {
    struct Case {
        std::string locator;
        std::string options;
        std::string failCall;  // entry point made to fail once, or ""
        std::uint32_t failStatus;
        std::uint32_t expected;
    };
    const std::vector<Case> cases{
        {"usb", "", "", 0, KM_IO_ERR_BAD_LOCATOR},
        {"usb:sn", "", "", 0, KM_IO_ERR_BAD_LOCATOR},
        {"usb:xx:KM1", "", "", 0, KM_IO_ERR_BAD_LOCATOR},
        {"usb:sn:KM1:extra", "", "", 0, KM_IO_ERR_BAD_LOCATOR},
        {"usb:1x", "", "", 0, KM_IO_ERR_BAD_LOCATOR},
        {"usb:sn:NOPE", "", "", 0, KM_IO_ERR_NOT_FOUND},
        {"usb:sn:KM1", "product-name Kalomet DRV2", "", 0, KM_IO_ERR_NOT_FOUND},
        {"usb:sn:BUSY", "", "", 0, KM_IO_ERR_NOT_FOUND},  // open in another program
        {"usb:5", "", "", 0, KM_IO_ERR_NOT_FOUND},
        {"usb:99999999999999999999999", "", "", 0, KM_IO_ERR_NOT_FOUND},
        {"usb:id:0", "", "", 0, KM_IO_ERR_NOT_FOUND},
        {"usb:id:12345", "", "", 0, KM_IO_ERR_NOT_FOUND},
        {"usb:id:" + kId.substr(0, 5), "", "", 0, KM_IO_ERR_NOT_FOUND},  // a prefix of an id is no id
        {"usb:id:" + kId, "product-name Kalomet DRV2", "", 0, KM_IO_ERR_NOT_FOUND},
        {"usb:id:" + std::to_string(0xA5F2F7D1u), "", "", 0, KM_IO_ERR_ENUMERATION_FAILED},  // no serial
        {"usb:sn:KM1", "baudrate 13000000", "", 0, KM_IO_ERR_BAD_OPTIONS},  // the driver rejects the rate
        {"usb:sn:KM1", "ftdi-flow-control xonxoff", "", 0, KM_IO_ERR_BAD_OPTIONS},
        {"usb:sn:KM1", "rx-timeout abc", "", 0, KM_IO_ERR_BAD_OPTIONS},
        {"usb:sn:KM1", "strict\nbogus 1", "", 0, KM_IO_ERR_BAD_OPTIONS},
        {"usb:sn:KM1", "ftdi-latency 256", "", 0, KM_IO_ERR_BAD_OPTIONS},
        {"usb:sn:NOPROFILE", "", "", 0, KM_IO_ERR_BAD_OPTIONS},
        {"usb:sn:UNKNOWN", "", "", 0, KM_IO_ERR_BAD_OPTIONS},
        {"usb:sn:KM1", "", "FT_CreateDeviceInfoList", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_GetDeviceInfoList", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:id:" + kId, "", "FT_CreateDeviceInfoList", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_OpenEx", d2xx::kDeviceNotOpened, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_EE_UASize", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_SetBaudRate", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_SetBaudRate", d2xx::kInvalidBaudRate, KM_IO_ERR_BAD_OPTIONS},
        {"usb:sn:KM1", "", "FT_SetDataCharacteristics", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_SetFlowControl", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_SetTimeouts", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_SetLatencyTimer", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_Purge", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:KM1", "", "FT_SetEventNotification", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:FIFO", "", "FT_SetBitMode", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
        {"usb:sn:FIFO", "", "FT_SetUSBParameters", d2xx::kOtherError, KM_IO_ERR_OPEN_FAILED},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(sim.reset());
        addChip("serial=KM1 description=\"Kalomet DRV-I\"" + kWords);
        addChip("serial=BUSY description=\"Kalomet DRV-I\"");
        addChip("serial=\"\" description=\"Kalomet DRV-I\" ee43=0x0100 ee44=0x0000");
        addChip("serial=NOPROFILE description=\"Kalomet DRV-I\" ua=KMIO\\xff");
        addChip("serial=UNKNOWN description=Other");
        addChip("serial=FIFO description=\"Kalomet Detect A\" type=6 highspeed=1");
        std::string busy = "BUSY";
        d2xx::FT_HANDLE other = nullptr;
        ASSERT_EQ(sim.driver().FT_OpenEx(busy.data(), d2xx::kOpenBySerialNumber, &other), d2xx::kOk);
        clock.advance(2s);  // so that "usb:id:" reads the current chips
        if (!c.failCall.empty()) {
            ASSERT_TRUE(sim.fail(c.failCall, c.failStatus)) << c.failCall;
        }
        EXPECT_EQ(open(c.locator, c.options), c.expected)
            << c.locator << " / " << c.options << " / " << c.failCall;
        EXPECT_EQ(sim.openHandles(), 1u) << c.locator << " / " << c.options << " / " << c.failCall;
        sim.driver().FT_Close(other);
    }
}

// The open sequence's configuration calls, per link profile and with the
// options that override the profile.
TEST_F(IoFtdiTest, OpenConfiguresTheChipFromItsProfileAndOptions) {
    const std::string tail = "FT_SetTimeouts 1000 1000\nFT_SetLatencyTimer 2\n";
    struct Case {
        std::string chip;
        std::string options;
        std::string log;
    };
    const std::vector<Case> cases{
        {"description=\"Kalomet DRV-I\"", "",
         "FT_SetBaudRate 500000\nFT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 0 0 0\n" + tail},
        {"description=Other ua=KMIO\\x0a", "",
         "FT_SetBaudRate 12000000\nFT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 256 0 0\n" + tail},
        {"description=Other ua=KMIO\\x0c", "",
         "FT_SetBaudRate 3000000\nFT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 0 0 0\n" + tail},
        {"description=\"Kalomet Detect A\" type=6 highspeed=1", "",
         "FT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 256 0 0\n" + tail +
             "FT_SetBitMode 255 0\nFT_SetBitMode 255 64\nFT_SetUSBParameters 65536 65536\n"},
        // Synchronous FIFO on a high-speed type-6 chip keeps its rate even when one is asked for.
        {"description=Other type=6 highspeed=1 ua=KMIO\\x0b", "baudrate 9600",
         "FT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 256 0 0\n" + tail +
             "FT_SetBitMode 255 0\nFT_SetBitMode 255 64\nFT_SetUSBParameters 65536 65536\n"},
        // Synchronous FIFO needs a type-6 chip; elsewhere only its flow control remains.
        {"description=Other ua=KMIO\\x0b", "",
         "FT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 256 0 0\n" + tail},
        {"description=\"Kalomet DRV2\"",
         "baudrate 115200\nftdi-flow-control dtrdsr\nrx-timeout 20\ntx-timeout 30\nftdi-latency 16",
         "FT_SetBaudRate 115200\nFT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 512 0 0\n"
         "FT_SetTimeouts 20 30\nFT_SetLatencyTimer 16\n"},
        {"description=\"Kalomet DRV2\"", "ftdi-flow-control none",
         "FT_SetBaudRate 12000000\nFT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl 0 0 0\n" + tail},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(sim.reset());
        addChip("serial=C1 " + c.chip);
        ASSERT_EQ(open("usb:sn:C1", c.options), KM_IO_OK) << c.chip << " / " << c.options;
        device->close(true);
        EXPECT_EQ(sim.callLog("C1"),
                  "FT_OpenEx\n" + c.log + "FT_Purge 3\nFT_SetEventNotification 1\nFT_Close\n")
            << c.chip << " / " << c.options;
    }
}

TEST_F(IoFtdiTest, DevicesAreFoundBySerialNumberChipIdOrPosition) {
    addChip("serial=BUSY description=\"Kalomet DRV-I\"");
    addChip("serial=KM1 description=\"Kalomet DRV-I\"" + kWords);
    addChip("serial=KM2 description=\"Kalomet DRV2\"");
    addChip("serial=KM9A description=\"Kalomet Detect A\" type=6 highspeed=1");
    std::string busy = "BUSY";
    d2xx::FT_HANDLE other = nullptr;
    ASSERT_EQ(sim.driver().FT_OpenEx(busy.data(), d2xx::kOpenBySerialNumber, &other), d2xx::kOk);
    struct Case {
        std::string locator;
        std::string options;
        std::string serial;  // the chip that must have been opened
    };
    const std::vector<std::string> serials{"BUSY", "KM1", "KM2", "KM9A"};
    for (const Case& c : std::vector<Case>{
             {"usb:sn:KM2", "", "KM2"},
             {"usb:0", "", "KM1"},  // the opened chip does not count
             {"usb:1", "", "KM2"},
             {"usb:0", "product-name Kalomet DRV2", "KM2"},
             {"usb:id:" + kId, "", "KM1"},
             {"usb:id:" + kId, "product-name Kalomet DRV-I\nproduct-name Kalomet DRV2", "KM1"},
             {"usb:sn:KM9", "", "KM9A"},  // a dual-channel chip by the serial number it is listed with
             {"usb:sn:KM9A", "", "KM9A"},
         }) {
        for (const std::string& serial : serials) {
            ASSERT_TRUE(sim.clearCallLog(serial));
        }
        ASSERT_EQ(open(c.locator, c.options), KM_IO_OK) << c.locator;
        device->close(true);
        for (const std::string& serial : serials) {
            const bool opened = sim.callLog(serial).find("FT_OpenEx") != std::string::npos;
            EXPECT_EQ(opened, serial == c.serial) << c.locator << ": " << serial;
        }
    }
    sim.driver().FT_Close(other);
}

std::string pattern(std::size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 131 + seed + i / 977) & 0xFF);
    }
    return bytes;
}

TEST_F(IoFtdiTest, OneMebibyteEachWayArrivesIntactAndInOrder) {
    addChip("serial=D1 description=\"Kalomet DRV-I\" echo=0");
    ASSERT_EQ(open("usb:sn:D1"), KM_IO_OK);
    const std::string toDevice = pattern(1 << 20, 7);
    const std::string fromDevice = pattern(1 << 20, 99);

    std::thread feeder([&] {
        for (std::size_t at = 0; at < fromDevice.size(); at += 4096) {
            sim.feed("D1", fromDevice.substr(at, 4096));
        }
    });
    for (std::size_t at = 0; at < toDevice.size(); at += 65536) {
        ASSERT_EQ(device->send(reinterpret_cast<const std::uint8_t*>(toDevice.data() + at), 65536), KM_IO_OK);
    }
    feeder.join();
    EXPECT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= fromDevice.size(); }));
    device->close(true);
    EXPECT_EQ(sim.takeWritten("D1"), toDevice);
    std::lock_guard lock(sink.mutex);
    EXPECT_TRUE(std::string(sink.bytes.begin(), sink.bytes.end()) == fromDevice);
    EXPECT_LE(sink.largestBlock, 1024u);
    EXPECT_TRUE(sink.errors.empty());
}

// A health check of a minute: only the driver's receive event, signalled for
// echoed and for fed bytes alike, can bring the bytes in time.
TEST_F(IoFtdiTest, EchoedAndFedBytesComeThroughTheReceiveEvent) {
    addChip("serial=E1 description=\"Kalomet DRV-I\"");
    ASSERT_EQ(open("usb:sn:E1", "health-check 60000"), KM_IO_OK);
    std::this_thread::sleep_for(20ms);  // the thread is waiting for the event by now
    const std::string message = "ping 1234";
    const auto start = Clock::now();
    ASSERT_EQ(device->send(reinterpret_cast<const std::uint8_t*>(message.data()), message.size()), KM_IO_OK);
    EXPECT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= message.size(); }));
    std::this_thread::sleep_for(20ms);
    ASSERT_TRUE(sim.feed("E1", "pong"));
    EXPECT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= message.size() + 4; }));
    EXPECT_LT(millisecondsSince(start), 5000);
    device->close(true);
    EXPECT_EQ(std::string(sink.bytes.begin(), sink.bytes.end()), message + "pong");
}

// Each way a link fails is reported once, with its code: an unplug noticed
// by the health check within a period, or (without one) only when the
// driver signals the event, and a status query that fails otherwise than
// with an I/O error.
TEST_F(IoFtdiTest, LinkFailuresAreReportedOnceWithTheirCodes) {
    const struct {
        const char* options;
        std::function<bool()> fail;
        bool needsEvent;
        std::uint32_t code;
    } cases[] = {
        {"health-check 200", [&] { return sim.unplug("U1"); }, false, KM_IO_ERR_LINK_LOST},
        {"health-check 0", [&] { return sim.unplug("U1"); }, true, KM_IO_ERR_LINK_LOST},
        {"health-check 50", [&] { return sim.fail("FT_GetStatus", d2xx::kOtherError, -1); }, false,
         KM_IO_ERR_LINK_FAILED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        ASSERT_TRUE(sim.reset());
        addChip("serial=U1 description=\"Kalomet DRV-I\"");
        sink.errors.clear();
        ASSERT_EQ(open("usb:sn:U1", c.options), KM_IO_OK);
        std::this_thread::sleep_for(50ms);  // past the thread's first look at the queue
        const auto start = Clock::now();
        ASSERT_TRUE(c.fail());
        if (c.needsEvent) {
            std::this_thread::sleep_for(700ms);
            EXPECT_TRUE(sink.waitUntil([&] { return sink.errors.empty(); })) << "reported without the event";
            ASSERT_TRUE(sim.signalEvent("U1"));
        }
        EXPECT_TRUE(sink.waitUntil([&] { return !sink.errors.empty(); }));
        EXPECT_LT(millisecondsSince(start),
                  (c.needsEvent ? 700 : 0) + 200 + 2000);  // room for a loaded machine
        std::this_thread::sleep_for(500ms);
        ASSERT_TRUE(sim.clearFailure("FT_GetStatus"));
        device->close(true);
        EXPECT_EQ(sink.errors, std::vector<std::uint32_t>{c.code});
    }
}

TEST_F(IoFtdiTest, SendResultsFollowTheDriverAndTheTimeLimit) {
    addChip("serial=S1 description=\"Kalomet DRV-I\" echo=0");
    ASSERT_EQ(open("usb:sn:S1", "tx-timeout 200"), KM_IO_OK);
    const std::uint8_t byte = 0x55;
    // Every write fails from here on: a 0-byte send must not reach the driver.
    ASSERT_TRUE(sim.fail("FT_Write", d2xx::kIoError, -1));
    EXPECT_EQ(device->send(&byte, 0), KM_IO_OK);
    EXPECT_EQ(device->send(nullptr, 0), KM_IO_OK);
    EXPECT_EQ(device->send(&byte, 1), KM_IO_ERR_LINK_LOST);
    ASSERT_TRUE(sim.fail("FT_Write", d2xx::kOtherError, -1));
    EXPECT_EQ(device->send(&byte, 1), KM_IO_ERR_SEND_FAILED);
    // A driver that accepts nothing (success, 0 bytes written): the send gives up after tx-timeout.
    ASSERT_TRUE(sim.fail("FT_Write", d2xx::kOk, -1));
    const auto start = Clock::now();
    EXPECT_EQ(device->send(&byte, 1), KM_IO_ERR_SEND_FAILED);
    const auto took = millisecondsSince(start);
    EXPECT_GE(took, 200);
    EXPECT_LT(took, 200 + 3000);
    ASSERT_TRUE(sim.clearFailure("FT_Write"));
    EXPECT_EQ(device->send(&byte, 1), KM_IO_OK);
    EXPECT_EQ(sim.takeWritten("S1"), std::string(1, '\x55'));
    device->close(true);
    EXPECT_EQ(device->send(&byte, 1), KM_IO_ERR_SEND_FAILED);  // the chip is closed
}

TEST_F(IoFtdiTest, CloseReturnsPromptlyWhateverTheHealthCheck) {
    for (const char* healthCheck : {"health-check 0", "health-check 60000", "health-check 250"}) {
        ASSERT_TRUE(sim.reset());
        addChip("serial=C1 description=\"Kalomet DRV-I\"");
        ASSERT_EQ(open("usb:sn:C1", healthCheck), KM_IO_OK);
        std::this_thread::sleep_for(20ms);  // let the thread settle into its wait
        const auto start = Clock::now();
        device->close(true);
        EXPECT_LT(millisecondsSince(start), 1000) << healthCheck;
        EXPECT_EQ(sim.openHandles(), 0u) << healthCheck;
    }
    // Without waiting: the thread still ends and closes the chip.
    addChip("serial=C2 description=\"Kalomet DRV-I\"");
    ASSERT_EQ(open("usb:sn:C2", "health-check 0"), KM_IO_OK);
    device->close(false);
    device.reset();
    EXPECT_TRUE(eventually([&] { return sim.openHandles() == 0; }));
}

TEST_F(IoFtdiTest, FtdiIdProperty) {
    addChip("serial=I1 description=\"Kalomet DRV-I\"" + kWords);
    ASSERT_EQ(open("usb:sn:I1"), KM_IO_OK);
    char value[32];
    std::size_t size = sizeof value;
    EXPECT_EQ(device->getProperty("ftdi-id", value, &size), KM_IO_OK);
    EXPECT_EQ(std::string(value), kId);
    EXPECT_EQ(size, kId.size());
    size = kId.size();
    EXPECT_EQ(device->getProperty("ftdi-id", value, &size), KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, kId.size() + 1);
    size = sizeof value;
    EXPECT_EQ(device->getProperty("name", value, &size), KM_IO_ERR_UNKNOWN_PROPERTY);
    EXPECT_EQ(device->getProperty(nullptr, value, &size), KM_IO_ERR_UNKNOWN_PROPERTY);
    ASSERT_TRUE(sim.fail("FT_ReadEE", d2xx::kOtherError));
    EXPECT_EQ(device->getProperty("ftdi-id", value, &size), KM_IO_ERR_NOT_SUPPORTED);
    device->close(true);
    EXPECT_EQ(device->getProperty("ftdi-id", value, &size), KM_IO_ERR_NOT_SUPPORTED);

    // A chip without an id.
    addChip("serial=I2 description=\"Kalomet DRV-I\"");
    ASSERT_EQ(open("usb:sn:I2"), KM_IO_OK);
    size = sizeof value;
    EXPECT_EQ(device->getProperty("ftdi-id", value, &size), KM_IO_ERR_NOT_SUPPORTED);
    device->close(true);
}

}  // namespace
}  // namespace kmiotest
