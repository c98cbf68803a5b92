#include "discovery/host.h"

#include <gtest/gtest.h>

#include <future>
#include <set>
#include <tuple>

#include "discovery/exceptions.h"
#include "nd_test_support.h"
#include "platform/steady_clock.h"

namespace kalometnd {
namespace {

using namespace std::chrono_literals;
using kmiotest::Bytes;
using kmiotest::handDatagram;
using kmiotest::kLoopback;
using kmiotest::thrown;

// Collects what a listener sees.
struct Seen : kmiotest::Collected<DiscoverInfo> {
    Host::Listener listener(bool keep = true) {
        return [this, keep](const DiscoverInfo& info) {
            add(info);
            return keep;
        };
    }
    std::optional<DiscoverInfo> find(const std::string& serial) const {
        const auto infos = all();
        const auto it = std::ranges::find(infos, serial, &DiscoverInfo::serialNumber);
        return it == infos.end() ? std::nullopt : std::optional(*it);
    }
    // The first record with this serial number, waiting up to 10 s.
    std::optional<DiscoverInfo> waitFor(const std::string& serial) const {
        kmiotest::eventually([&] { return find(serial).has_value(); });
        return find(serial);
    }
};

// Every field but the timestamp; an empty serial number when the record never came.
auto fields(const std::optional<DiscoverInfo>& record) {
    const DiscoverInfo i = record.value_or(DiscoverInfo{});
    return std::make_tuple(i.serialNumber, i.selector, int{i.protocolId}, i.available, int{i.port}, i.info,
                           i.ipAddress, i.isReply);
}

Bytes inform(const std::string& serial, std::uint32_t version = 1,
             const Bytes& payload = {1, 1, 0, 0, 0, 0}) {
    return handDatagram(0xA2, version, 3, serial, {}, payload);
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

    kmiotest::Responder responder;
    Host host;
    Seen seen;
    int syncCount = 0;
};

TEST_F(HostTest, RepliesAndInformsAreDeliveredWithWhatTheirPayloadsHold) {
    const std::int64_t before = kmio::steadyNowNs();
    const Token token = host.discover(0x11223344, "nd-responder");
    const auto info = seen.waitFor("nd-responder");
    EXPECT_EQ(fields(info), std::make_tuple("nd-responder", 7u, 42, true, 55550, "sim", kLoopback, true));
    EXPECT_GE(info.value_or(DiscoverInfo{}).timestamp, before);
    EXPECT_LE(info.value_or(DiscoverInfo{}).timestamp, kmio::steadyNowNs());
    EXPECT_EQ(responder.lastRequest(), kmiotest::handHeader(96, 0x21, 1, 0x11223344, "nd-responder", token));

    // A short payload yields none of its fields, a malformed text all but the text.
    responder.sendToHost(inform("short", 1, {9, 1, 0x50, 0}));
    responder.sendToHost(inform("badtext", 1, {9, 1, 0x50, 0, 5, 'a', 'b'}));
    EXPECT_EQ(fields(seen.waitFor("short")), std::make_tuple("short", 3u, 0, false, 0, "", kLoopback, false));
    EXPECT_EQ(fields(seen.waitFor("badtext")),
              std::make_tuple("badtext", 3u, 9, true, 0x50, "", kLoopback, false));
}

TEST_F(HostTest, RepliesCompleteTheRequestWithTheirToken) {
    const Token wanted = host.newToken();
    const Token other = host.newToken();
    auto config = host.expectConfiguration(wanted);
    const Bytes configPayload = {1, 10, 0, 0, 5, 10, 0, 0, 1, 255, 255, 0, 0};
    responder.sendToHost(handDatagram(0x82, 1, 0, "", other, configPayload));
    sync();
    EXPECT_EQ(config.wait_for(0s), std::future_status::timeout);  // unmatched token ignored
    responder.sendToHost(handDatagram(0x82, 1, 0, "", wanted, configPayload));
    ASSERT_EQ(config.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(config.get(), (DeviceConfig{0x0A000005, 0xFFFF0000, 0x0A000001, true}));

    const Token bad = host.newToken();
    auto badConfig = host.expectConfiguration(bad);
    responder.sendToHost(handDatagram(0x82, 1, 0, "", bad, {1, 2, 3}));
    ASSERT_EQ(badConfig.wait_for(5s), std::future_status::ready);
    // Once the host thread has moved on, it has let go of the promise and of
    // the exception it holds: ThreadSanitizer cannot see the reference count
    // that libstdc++ keeps on that exception.
    sync();
    EXPECT_EQ(thrown<std::runtime_error>([&] { badConfig.get(); }), "Invalid Configuration packet");
}

TEST_F(HostTest, ResultsLookInTheConfigurationTableFirst) {
    const Token shared = host.newToken();
    const Token infoOnly = host.newToken();
    auto first = host.expectResult(shared);
    auto second = host.expectDeviceInfoResult(shared);
    auto deviceInfo = host.expectDeviceInfoResult(infoOnly);

    responder.sendToHost(handDatagram(0x81, 1, 0, "", shared, {31, 0}));
    ASSERT_EQ(first.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(first.get(), ResultCode::PermissionDenied);
    sync();
    EXPECT_EQ(second.wait_for(0s), std::future_status::timeout);

    responder.sendToHost(handDatagram(0x81, 1, 0, "", infoOnly, {0xFD, 0x7F}));
    ASSERT_EQ(deviceInfo.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(deviceInfo.get(), ResultCode::FeatureNotSupported);

    // Without a payload there is no code to read (one byte would be padded to four).
    responder.sendToHost(handDatagram(0x81, 1, 0, "", shared, {}));
    ASSERT_EQ(second.wait_for(5s), std::future_status::ready);
    sync();  // as above
    EXPECT_EQ(thrown<std::runtime_error>([&] { second.get(); }), "Invalid Result packet");
}

TEST_F(HostTest, LogLinesForSentAndReceivedPackets) {
    kmiotest::LogCapture log;
    const Token token = host.discover(0xFFFFFFFF, "");
    const std::string packet = "KM_ND_Packet { OpCode: Discover ";
    const std::string all = "Broadcast (127.0.0.1), Multicast (127.0.0.1)";
    ASSERT_TRUE(seen.waitFor("nd-responder"));
    EXPECT_TRUE(log.waitFor(
        kLogPackets, "Host sending packet over " + all + ": " + packet +
                         "Request, Version: 1, SerialNumber: \"\", Token: " + tokenText(token) + " }"));
    EXPECT_TRUE(
        log.waitFor(kLogRaw, "Host sending raw packet over " + all + ": KM_ND_RawPacket { size: 96, "));
    EXPECT_TRUE(log.waitFor(
        kLogPackets, "Host got packet over Broadcast (127.0.0.1) from 127.0.0.1: " + packet +
                         "Reply, Version: 1, SerialNumber: \"nd-responder\", Token: " + tokenText(token) +
                         ", ProtocolId: 0x2a, Port: 55550, Available: Yes, Info: sim }"));
    EXPECT_TRUE(log.waitFor(kLogRaw, "Host got valid raw packet over "));
}

TEST_F(HostTest, PacketOfAnotherVersionIsLoggedAsInvalidAndReachesNoListener) {
    kmiotest::LogCapture log;
    host.discover(0xFFFFFFFF, "");
    ASSERT_TRUE(seen.waitFor("nd-responder"));
    responder.sendToHost(inform("v2", 2));
    sync();
    EXPECT_FALSE(seen.find("v2"));
    EXPECT_TRUE(log.waitFor(kLogRaw,
                            "Host got invalid raw packet over Broadcast (127.0.0.1) from 127.0.0.1: "
                            "KM_ND_RawPacket { size: 104, data: c2 65 00 a2 50 44 4e 4b  02 00"));
}

TEST_F(HostTest, MaskedLevelsReachNoSink) {
    kmiotest::LogCapture log(kLogErrors);
    host.discover(0xFFFFFFFF, "");
    ASSERT_TRUE(seen.waitFor("nd-responder"));
    sync();
    EXPECT_TRUE(log.all().empty());
}

TEST_F(HostTest, ListenersAreRemovedByFalseOrById) {
    Seen once;
    Seen removed;
    host.addListener(once.listener(false));
    const auto removedId = host.addListener(removed.listener());
    responder.sendToHost(inform("first"));
    ASSERT_TRUE(once.waitFor("first"));
    ASSERT_TRUE(removed.waitFor("first"));
    host.removeListener(removedId);
    host.removeListener(9999);  // unknown: ignored
    responder.sendToHost(inform("second"));
    ASSERT_TRUE(seen.waitFor("second"));
    EXPECT_FALSE(once.find("second"));
    EXPECT_FALSE(removed.find("second"));
    EXPECT_EQ(host.addListener(once.listener()), removedId + 1);  // ids are never reused
}

TEST_F(HostTest, CancelAndStopFailPendingRequests) {
    auto cancelled = host.expectResult(host.newToken());
    auto cancelledConfig = host.expectConfiguration(host.newToken());
    host.cancelAll();
    EXPECT_EQ(thrown<RequestCancelledException>([&] { cancelled.get(); }), "Cancelled");
    EXPECT_THROW(cancelledConfig.get(), RequestCancelledException);

    auto broken = host.expectDeviceInfoResult(host.newToken());
    host.stop();
    EXPECT_EQ(thrown<std::future_error>([&] { broken.get(); }),
              std::future_error(std::future_errc::broken_promise).what());
}

TEST_F(HostTest, RunningHostRefusesStartStopsPromptlyAndThenRefusesToDiscover) {
    EXPECT_EQ(thrown<InvalidOperationException>([&] { host.start({kLoopback}); }), "Host already running");
    // The thread sits in a 5 s receive; closing the connection ends it at once.
    const auto start = std::chrono::steady_clock::now();
    host.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    host.stop();
    EXPECT_EQ(thrown<InvalidOperationException>([&] { host.discover(0, ""); }), "Host is not running");
}

TEST_F(HostTest, StopFromAListenerDoesNotDeadlockAndTheHostRestarts) {
    std::promise<void> stopped;
    host.addListener([&](const DiscoverInfo& info) {
        if (info.serialNumber != "stop-me") {
            return true;
        }
        host.stop();
        stopped.set_value();
        return false;
    });
    responder.sendToHost(inform("stop-me"));
    ASSERT_EQ(stopped.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_EQ(thrown<InvalidOperationException>([&] { host.discover(0, ""); }), "Host is not running");
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
