#include "interface/device_table.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <system_error>
#include <thread>

#include "interface/event_data.h"
#include "test_device.h"

namespace kmio::test {
namespace {

using namespace std::chrono_literals;

bool waitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// The application side of one device: what its callbacks received.
struct Sink {
    std::mutex mutex;
    std::vector<std::uint8_t> bytes;
    std::vector<std::uint32_t> errors;
    std::thread::id callbackThread;
    std::function<void()> onBytes;  // runs inside the receive callback

    static void receive(void* context, const std::uint8_t* data, std::size_t length) {
        auto* sink = static_cast<Sink*>(context);
        {
            std::lock_guard<std::mutex> lock(sink->mutex);
            sink->bytes.insert(sink->bytes.end(), data, data + length);
            sink->callbackThread = std::this_thread::get_id();
        }
        if (sink->onBytes) {
            sink->onBytes();
        }
    }
    static void linkError(void* context, std::uint32_t code) {
        auto* sink = static_cast<Sink*>(context);
        std::lock_guard<std::mutex> lock(sink->mutex);
        sink->errors.push_back(code);
    }
    std::size_t received() {
        std::lock_guard<std::mutex> lock(mutex);
        return bytes.size();
    }
};

class DeviceTableTest : public ::testing::Test {
protected:
    ~DeviceTableTest() override {
        for (std::uint32_t h = 0; h < DeviceTable::kSlotCount; ++h) {
            table.close(h, true);
        }
        EXPECT_TRUE(waitFor([&] { return counters.alive == 0; }));
    }

    std::uint32_t open(std::uint32_t& handle, const std::string& locator = "serial:test") {
        return table.open(handle, locator, "", &sink, &Sink::receive, &Sink::linkError);
    }
    std::uint32_t send(std::uint32_t handle, std::string_view text) {
        return table.send(handle, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    }

    DeviceCounters counters;
    Sink sink;
    std::weak_ptr<TestDevice> lastDevice;
    DeviceTable table{[this](std::uint32_t, const std::string& locator, const std::string& options,
                             void* context, KM_IO_ReceiveCallback onReceive,
                             KM_IO_LinkErrorCallback onError) {
        auto device = std::make_shared<TestDevice>(counters, locator, options, context, onReceive, onError);
        lastDevice = device;
        return device;
    }};
};

TEST_F(DeviceTableTest, ReusesTheLowestFreeHandle) {
    std::uint32_t h = 99;
    for (std::uint32_t expected = 0; expected < 4; ++expected) {
        ASSERT_EQ(open(h), KM_IO_OK);
        EXPECT_EQ(h, expected);
    }
    ASSERT_EQ(table.close(2, false), KM_IO_OK);
    ASSERT_EQ(table.close(0, true), KM_IO_OK);
    ASSERT_EQ(open(h), KM_IO_OK);
    EXPECT_EQ(h, 0u);
    ASSERT_EQ(open(h), KM_IO_OK);
    EXPECT_EQ(h, 2u);
}

TEST_F(DeviceTableTest, SixtyFifthOpenFailsAndClosesTheExtraDevice) {
    std::uint32_t h = 0;
    for (std::uint32_t i = 0; i < DeviceTable::kSlotCount; ++i) {
        ASSERT_EQ(open(h), KM_IO_OK);
    }
    EXPECT_EQ(open(h), KM_IO_ERR_NO_FREE_HANDLE);
    EXPECT_EQ(h, 0u);
    // The extra device was fully opened, then stopped and released before
    // open returned: its thread has ended and nothing else holds it.
    EXPECT_EQ(counters.threadsEnded, 1);
    EXPECT_EQ(counters.alive, 64);
}

TEST_F(DeviceTableTest, RejectsBadAndClosedHandles) {
    std::uint32_t h = 0;
    ASSERT_EQ(open(h, "serial:named"), KM_IO_OK);
    char value[32];
    std::size_t size = sizeof value;
    EXPECT_EQ(table.getProperty(h, "locator", value, &size), KM_IO_OK);
    EXPECT_STREQ(value, "serial:named");
    EXPECT_EQ(table.getProperty(h, "other", value, &size), KM_IO_ERR_UNKNOWN_PROPERTY);

    EXPECT_EQ(table.close(h, true), KM_IO_OK);
    EXPECT_EQ(table.close(h, true), KM_IO_ERR_INVALID_HANDLE);
    EXPECT_EQ(send(h, "x"), KM_IO_ERR_INVALID_HANDLE);
    EXPECT_EQ(table.getProperty(h, "locator", value, &size), KM_IO_ERR_INVALID_HANDLE);
    for (std::uint32_t bad : {64u, 65u, 0xFFFFFFFFu}) {
        EXPECT_EQ(table.close(bad, false), KM_IO_ERR_INVALID_HANDLE);
        EXPECT_EQ(send(bad, "x"), KM_IO_ERR_INVALID_HANDLE);
        EXPECT_EQ(table.getProperty(bad, "locator", value, &size), KM_IO_ERR_INVALID_HANDLE);
    }
}

TEST_F(DeviceTableTest, FailedOpenLeavesHandleZeroAndNoDevice) {
    std::uint32_t h = 77;
    EXPECT_EQ(open(h, "Serial:x"), KM_IO_ERR_BAD_LOCATOR);
    EXPECT_EQ(h, 0u);
    EXPECT_TRUE(lastDevice.expired());

    for (std::uint32_t code : {KM_IO_ERR_BAD_LOCATOR, KM_IO_ERR_NOT_FOUND, KM_IO_ERR_OPEN_FAILED}) {
        counters.openResult = code;
        h = 77;
        EXPECT_EQ(open(h), code);
        EXPECT_EQ(h, 0u);
        EXPECT_EQ(counters.alive, 0);
    }

    DeviceTable noLinks([](auto&&...) { return std::shared_ptr<IoDevice>(); });
    h = 77;
    EXPECT_EQ(noLinks.open(h, "usb:sn:1", "", nullptr, &Sink::receive, nullptr), KM_IO_ERR_OPEN_FAILED);
    EXPECT_EQ(h, 0u);
}

TEST_F(DeviceTableTest, DeliversBytesAndLinkErrorsOnTheDeviceThread) {
    std::uint32_t h = 0;
    ASSERT_EQ(open(h), KM_IO_OK);
    ASSERT_EQ(send(h, "hello"), KM_IO_OK);
    ASSERT_TRUE(waitFor([&] { return sink.received() == 5; }));
    lastDevice.lock()->failLink(KM_IO_ERR_LINK_LOST);
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard<std::mutex> lock(sink.mutex);
        return !sink.errors.empty();
    }));
    std::lock_guard<std::mutex> lock(sink.mutex);
    EXPECT_EQ(std::string(sink.bytes.begin(), sink.bytes.end()), "hello");
    EXPECT_EQ(sink.errors, std::vector<std::uint32_t>{KM_IO_ERR_LINK_LOST});
    EXPECT_NE(sink.callbackThread, std::this_thread::get_id());
}

TEST_F(DeviceTableTest, CloseWithWaitReturnsAfterTheThreadEnded) {
    std::uint32_t h = 0;
    ASSERT_EQ(open(h), KM_IO_OK);
    std::atomic<bool> inCallback{false};
    std::atomic<bool> callbackDone{false};
    sink.onBytes = [&] {
        inCallback = true;
        // Long enough that a close which does not wait returns first.
        std::this_thread::sleep_for(50ms);
        callbackDone = true;
    };
    ASSERT_EQ(send(h, "x"), KM_IO_OK);
    ASSERT_TRUE(waitFor([&] { return inCallback.load(); }));
    EXPECT_EQ(table.close(h, true), KM_IO_OK);
    EXPECT_TRUE(callbackDone);
    EXPECT_EQ(counters.threadsEnded, 1);
    EXPECT_EQ(counters.alive, 0);
}

TEST_F(DeviceTableTest, CloseWithoutWaitReturnsWhileTheThreadRuns) {
    std::uint32_t h = 0;
    ASSERT_EQ(open(h), KM_IO_OK);
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> inCallback{false};
    sink.onBytes = [&] {
        inCallback = true;
        released.wait();
    };
    ASSERT_EQ(send(h, "x"), KM_IO_OK);
    ASSERT_TRUE(waitFor([&] { return inCallback.load(); }));
    // The receiving thread is stuck in the callback: a waiting close would hang here.
    EXPECT_EQ(table.close(h, false), KM_IO_OK);
    EXPECT_EQ(counters.alive, 1);
    release.set_value();
    EXPECT_TRUE(waitFor([&] { return counters.alive == 0; }));
}

TEST_F(DeviceTableTest, CloseWithWaitFromItsOwnCallbackDoesNotHang) {
    std::uint32_t h = 0;
    ASSERT_EQ(open(h), KM_IO_OK);
    std::atomic<std::uint32_t> result{99};
    sink.onBytes = [&] { result = table.close(h, true); };
    ASSERT_EQ(send(h, "x"), KM_IO_OK);
    EXPECT_TRUE(waitFor([&] { return counters.alive == 0; }));
    EXPECT_EQ(result, KM_IO_OK);
}

TEST_F(DeviceTableTest, SendRacingCloseNeverUsesAFreedDevice) {
    for (int round = 0; round < 200; ++round) {
        std::uint32_t h = 0;
        ASSERT_EQ(open(h), KM_IO_OK);
        std::thread sender([&] {
            while (send(h, "abc") == KM_IO_OK) {
            }
        });
        EXPECT_EQ(table.close(h, round % 2 == 0), KM_IO_OK);
        sender.join();
    }
    EXPECT_TRUE(waitFor([&] { return counters.alive == 0; }));
}

struct EventLog {
    DeviceTable* table = nullptr;
    std::vector<std::string> seen;
    std::vector<std::string> reentryErrors;
};

void recordEvent(void* userData, std::uint32_t type, const KM_IO_Event* event) {
    auto* log = static_cast<EventLog*>(userData);
    char text[64];
    std::size_t size = sizeof text;
    EXPECT_EQ(readDiscoveryEventData(*event, "only-locator", text, &size), KM_IO_OK);
    log->seen.push_back(std::to_string(type) + " " + text);

    // Every call that takes the table mutex must refuse instead of deadlocking.
    const std::vector<std::function<void()>> calls{
        [&] { log->table->setEventCallback(nullptr, nullptr); },
        [&] { log->table->send(0, nullptr, 0); },
        [&] { log->table->getProperty(0, "locator", text, &size); },
        [&] { log->table->close(0, true); },
        [&] {
            std::uint32_t h = 0;
            log->table->open(h, "serial:x", "", nullptr, &Sink::receive, nullptr);
        },
        [&] { log->table->runLocked([] {}); },
        [&] { log->table->raiseEvent(1, {}); },
    };
    for (const auto& call : calls) {
        try {
            call();
            log->reentryErrors.push_back("returned");
        } catch (const std::system_error& e) {
            log->reentryErrors.push_back(e.code() == std::errc::resource_deadlock_would_occur ? "ok"
                                                                                              : e.what());
        }
    }
}

TEST_F(DeviceTableTest, EventsReachOnlyTheRegisteredCallbackAndReentryThrows) {
    std::uint32_t h = 0;
    ASSERT_EQ(open(h), KM_IO_OK);
    PropertyRecord record;
    record.set("locator", "network:sn:KM1");

    table.raiseEvent(KM_IO_EVENT_DEVICE_AVAILABLE, record);  // no callback: lost
    EventLog log{&table, {}, {}};
    table.setEventCallback(&recordEvent, &log);
    table.raiseEvent(KM_IO_EVENT_DEVICE_UNAVAILABLE, record);
    table.setEventCallback(nullptr, &log);
    table.raiseEvent(KM_IO_EVENT_DEVICE_AVAILABLE, record);

    EXPECT_EQ(log.seen, std::vector<std::string>{"2 network:sn:KM1"});
    EXPECT_EQ(log.reentryErrors, std::vector<std::string>(7, "ok"));
    EXPECT_EQ(counters.alive, 1);       // the refused open opened nothing
    EXPECT_EQ(send(h, "x"), KM_IO_OK);  // the table is usable again afterwards
}

}  // namespace
}  // namespace kmio::test
