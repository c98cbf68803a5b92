#include "discovery/host.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>

#include "discovery/exceptions.h"
#include "nd_test_support.h"
#include "platform/steady_clock.h"

namespace kalometnd {
namespace {

using namespace std::chrono_literals;
using ndtest::Bytes;
using ndtest::kLoopback;

// Collects what a listener sees.
class Seen {
public:
    Host::Listener listener(bool keep = true) {
        return [this, keep](const DiscoverInfo& info) {
            const std::lock_guard lock(mutex_);
            infos_.push_back(info);
            changed_.notify_all();
            return keep;
        };
    }
    // The first record with this serial number, waiting up to 5 s.
    std::optional<DiscoverInfo> waitFor(const std::string& serial) {
        std::unique_lock lock(mutex_);
        std::optional<DiscoverInfo> found;
        changed_.wait_for(lock, 5s, [&] {
            for (const auto& info : infos_) {
                if (info.serialNumber == serial) {
                    found = info;
                    return true;
                }
            }
            return false;
        });
        return found;
    }
    std::size_t count(const std::string& serial) {
        const std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count_if(
            infos_.begin(), infos_.end(), [&](const auto& i) { return i.serialNumber == serial; }));
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<DiscoverInfo> infos_;
};

Bytes inform(const std::string& serial, std::uint32_t version = 1,
             const Bytes& payload = {1, 1, 0, 0, 0, 0}) {
    return ndtest::handDatagram(0xA2, version, 0, serial, {}, payload);
}

class HostTest : public ::testing::Test {
protected:
    void SetUp() override {
        host.start({kLoopback});
        host.addListener(seen.listener());
    }
    // Datagrams from one socket to one channel are handled in order: once this
    // marker arrives, everything the responder sent before it has been handled.
    void sync() {
        const std::string serial = "sync-" + std::to_string(++syncCount);
        responder.sendToHost(inform(serial));
        ASSERT_TRUE(seen.waitFor(serial));
    }

    ndtest::Responder responder;
    Host host;
    Seen seen;
    int syncCount = 0;
};

TEST_F(HostTest, DiscoverIsAnsweredAndDelivered) {
    const std::int64_t before = kmio::steadyNowNs();
    const Token token = host.discover(0x11223344, "nd-responder");
    const auto info = seen.waitFor("nd-responder");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->selector, 7u);
    EXPECT_EQ(info->protocolId, 42);
    EXPECT_TRUE(info->available);
    EXPECT_EQ(info->port, 55550);
    EXPECT_EQ(info->info, "sim");
    EXPECT_EQ(info->ipAddress, kLoopback);
    EXPECT_TRUE(info->isReply);
    EXPECT_GE(info->timestamp, before);
    EXPECT_LE(info->timestamp, kmio::steadyNowNs());

    const Bytes request = responder.lastRequest();
    ASSERT_EQ(request.size(), 96u);
    EXPECT_EQ(request, ndtest::handHeader(96, 0x21, 1, 0x11223344, "nd-responder", token));
    EXPECT_EQ(request[86] & 0xF0, 0x40);  // version-4 UUID
    EXPECT_EQ(request[88] & 0xC0, 0x80);
}

TEST_F(HostTest, InformsWithShortOrMalformedPayloadsAreStillDelivered) {
    responder.sendToHost(inform("short", 1, {9, 1, 0x50, 0}));
    auto info = seen.waitFor("short");
    ASSERT_TRUE(info);
    EXPECT_FALSE(info->isReply);
    EXPECT_EQ(info->protocolId, 0);
    EXPECT_FALSE(info->available);
    EXPECT_EQ(info->port, 0);

    responder.sendToHost(inform("badtext", 1, {9, 1, 0x50, 0, 5, 'a', 'b'}));
    info = seen.waitFor("badtext");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->protocolId, 9);
    EXPECT_TRUE(info->available);
    EXPECT_EQ(info->port, 0x50);
    EXPECT_EQ(info->info, "");
}

TEST_F(HostTest, RepliesCompleteTheRequestWithTheirToken) {
    const Token wanted = host.newToken();
    const Token other = host.newToken();
    EXPECT_NE(wanted, other);
    auto config = host.expectConfiguration(wanted);
    const Bytes configPayload = {1, 10, 0, 0, 5, 10, 0, 0, 1, 255, 255, 0, 0};
    responder.sendToHost(ndtest::handDatagram(0x82, 1, 0, "", other, configPayload));
    sync();
    EXPECT_EQ(config.wait_for(0s), std::future_status::timeout);  // unmatched token ignored
    responder.sendToHost(ndtest::handDatagram(0x82, 1, 0, "", wanted, configPayload));
    ASSERT_EQ(config.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(config.get(), (DeviceConfig{0x0A000005, 0xFFFF0000, 0x0A000001, true}));

    const Token bad = host.newToken();
    auto badConfig = host.expectConfiguration(bad);
    responder.sendToHost(ndtest::handDatagram(0x82, 1, 0, "", bad, {1, 2, 3}));
    ASSERT_EQ(badConfig.wait_for(5s), std::future_status::ready);
    try {
        badConfig.get();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Invalid Configuration packet");
    }
}

TEST_F(HostTest, ResultsLookInTheConfigurationTableFirst) {
    const Token shared = host.newToken();
    const Token infoOnly = host.newToken();
    auto first = host.expectResult(shared);
    auto second = host.expectDeviceInfoResult(shared);
    auto deviceInfo = host.expectDeviceInfoResult(infoOnly);

    responder.sendToHost(ndtest::handDatagram(0x81, 1, 0, "", shared, {31, 0}));
    ASSERT_EQ(first.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(first.get(), ResultCode::PermissionDenied);
    sync();
    EXPECT_EQ(second.wait_for(0s), std::future_status::timeout);

    responder.sendToHost(ndtest::handDatagram(0x81, 1, 0, "", infoOnly, {0xFD, 0x7F}));
    ASSERT_EQ(deviceInfo.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(deviceInfo.get(), ResultCode::FeatureNotSupported);

    // Without a payload there is no code to read (one byte would be padded to four).
    responder.sendToHost(ndtest::handDatagram(0x81, 1, 0, "", shared, {}));
    ASSERT_EQ(second.wait_for(5s), std::future_status::ready);
    try {
        second.get();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Invalid Result packet");
    }
}

TEST_F(HostTest, VersionTwoIsLoggedAsInvalidAndNotDispatched) {
    ndtest::LogCapture log;
    const Bytes datagram = inform("v2", 2);
    responder.sendToHost(datagram);
    sync();
    EXPECT_EQ(seen.count("v2"), 0u);
    EXPECT_TRUE(log.waitFor(kLogRaw,
                            "Host got invalid raw packet over Broadcast (127.0.0.1) from 127.0.0.1: "
                            "KM_ND_RawPacket { size: 104, data: c2 65 00 a2 50 44 4e 4b  02 00"));
}

TEST_F(HostTest, LogLinesForSentAndReceivedPackets) {
    ndtest::LogCapture log;
    const Token token = host.discover(0xFFFFFFFF, "");
    const std::string request =
        "KM_ND_Packet { OpCode: Discover Request, Version: 1, SerialNumber: \"\", Token: " +
        tokenText(token) + " }";
    const std::string all = "Broadcast (127.0.0.1), Multicast (127.0.0.1)";
    ASSERT_TRUE(seen.waitFor("nd-responder"));
    EXPECT_TRUE(log.waitFor(kLogPackets, "Host sending packet over " + all + ": " + request));
    EXPECT_TRUE(
        log.waitFor(kLogRaw, "Host sending raw packet over " + all + ": KM_ND_RawPacket { size: 96, "));
    EXPECT_TRUE(log.waitFor(kLogPackets,
                            "Host got packet over Broadcast (127.0.0.1) from 127.0.0.1: "
                            "KM_ND_Packet { OpCode: Discover Reply, Version: 1, SerialNumber: "
                            "\"nd-responder\", Token: " +
                                tokenText(token) +
                                ", ProtocolId: 0x2a, Port: 55550, Available: Yes, Info: sim }"));
    EXPECT_TRUE(log.waitFor(kLogRaw, "Host got valid raw packet over "));
}

TEST_F(HostTest, MaskedLevelsReachNoSink) {
    ndtest::LogCapture log(kLogErrors);
    host.discover(0xFFFFFFFF, "");
    ASSERT_TRUE(seen.waitFor("nd-responder"));
    sync();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HostTest, ListenersAreRemovedByFalseOrById) {
    Seen once;
    Seen removed;
    const auto onceId = host.addListener(once.listener(false));
    const auto removedId = host.addListener(removed.listener());
    EXPECT_EQ(removedId, onceId + 1);
    responder.sendToHost(inform("first"));
    ASSERT_TRUE(once.waitFor("first"));
    ASSERT_TRUE(removed.waitFor("first"));
    host.removeListener(removedId);
    host.removeListener(9999);  // unknown: ignored
    responder.sendToHost(inform("second"));
    ASSERT_TRUE(seen.waitFor("second"));
    EXPECT_EQ(once.count("second"), 0u);
    EXPECT_EQ(removed.count("second"), 0u);
    EXPECT_EQ(host.addListener(once.listener()), removedId + 1);  // ids are never reused
}

TEST_F(HostTest, CancelAndStopFailPendingRequests) {
    auto cancelled = host.expectResult(host.newToken());
    auto cancelledConfig = host.expectConfiguration(host.newToken());
    host.cancelAll();
    try {
        cancelled.get();
        ADD_FAILURE() << "no exception";
    } catch (const RequestCancelledException& e) {
        EXPECT_STREQ(e.what(), "Cancelled");
    }
    EXPECT_THROW(cancelledConfig.get(), RequestCancelledException);

    auto broken = host.expectDeviceInfoResult(host.newToken());
    host.stop();
    try {
        broken.get();
        ADD_FAILURE() << "no exception";
    } catch (const std::future_error& e) {
        EXPECT_EQ(e.code(), std::future_errc::broken_promise);
    }
}

TEST_F(HostTest, StateErrorsAndImmediateStop) {
    try {
        host.start({kLoopback});
        ADD_FAILURE() << "no exception";
    } catch (const InvalidOperationException& e) {
        EXPECT_STREQ(e.what(), "Host already running");
    }
    // The thread sits in a 5 s receive; closing the connection ends it at once.
    const auto start = std::chrono::steady_clock::now();
    host.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_FALSE(host.running());
    host.stop();
    try {
        host.discover(0, "");
        ADD_FAILURE() << "no exception";
    } catch (const InvalidOperationException& e) {
        EXPECT_STREQ(e.what(), "Host is not running");
    }
    host.start({kLoopback});  // restartable
    EXPECT_TRUE(host.running());
    host.discover(0xFFFFFFFF, "");
    EXPECT_TRUE(seen.waitFor("nd-responder"));
}

TEST_F(HostTest, StopFromAListenerDoesNotDeadlock) {
    std::promise<void> stopped;
    host.addListener([&](const DiscoverInfo& info) {
        if (info.serialNumber == "stop-me") {
            host.stop();
            stopped.set_value();
            return false;
        }
        return true;
    });
    responder.sendToHost(inform("stop-me"));
    ASSERT_EQ(stopped.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(host.running());
    host.start({kLoopback});
    host.discover(0xFFFFFFFF, "");
    EXPECT_TRUE(seen.waitFor("nd-responder"));
}

TEST(HostToken, EveryTokenIsAFreshVersion4Uuid) {
    Host host;
    std::set<Token> tokens;
    for (int i = 0; i < 200; ++i) {
        const Token t = host.newToken();
        EXPECT_EQ(t[6] & 0xF0, 0x40);
        EXPECT_EQ(t[8] & 0xC0, 0x80);
        tokens.insert(t);
    }
    EXPECT_EQ(tokens.size(), 200u);
}

}  // namespace
}  // namespace kalometnd
