#include "discovery/connection.h"

#include <gtest/gtest.h>

#include <future>

#include "discovery/exceptions.h"
#include "nd_test_support.h"
#include "platform/error_text.h"
#include "support/wine.h"

namespace kalometnd {
namespace {

using namespace std::chrono_literals;
using kmiotest::Bytes;
using kmiotest::kLoopback;
using kmiotest::thrown;

// A datagram that no other test sends, so a receiver can tell it from stray traffic.
Bytes marker(std::uint8_t tag) {
    kmiotest::TokenBytes token{};
    token.fill(tag);
    token[0] = 0x5A;
    return kmiotest::handDatagram(0x21, 1, 0, "conn-test", token, {});
}

std::function<bool(const kmiotest::Datagram&)> is(const Bytes& expected) {
    return [expected](const kmiotest::Datagram& d) { return d.bytes == expected; };
}

// One receive call's results.
struct Received {
    std::vector<std::uint8_t> data;
    unsigned id = 0;
    std::uint32_t source = 0;
    bool from(Connection& c, int timeoutMs) { return c.receive(data, id, source, timeoutMs); }
    // Receives until `expected` arrives or 10 s pass.
    bool awaited(Connection& c, const Bytes& expected) {
        return kmiotest::eventually([&] { return from(c, 100) && data == expected; });
    }
};

TEST(Connection, LoopbackIdsNamesAndErrors) {
    auto c = createConnection({kLoopback});
    EXPECT_EQ(c->networkName(1), "Broadcast (127.0.0.1)");
    EXPECT_EQ(c->networkName(2), "Multicast (127.0.0.1)");
    EXPECT_EQ(c->networkName(0), "Broadcast (127.0.0.1), Multicast (127.0.0.1)");
    EXPECT_EQ(thrown<InvalidArgumentException>([&] { c->networkName(3); }), "Network id out of range");
    EXPECT_EQ(thrown<InvalidArgumentException>([&] { c->send(3, marker(1)); }), "Invalid network id");
    c->close(true);
    EXPECT_EQ(c->networkName(1), "");
    EXPECT_NO_THROW(c->send(3, marker(1)));  // closed: nothing happens, not even the id check
}

TEST(Connection, AnAddressOfNoInterfaceCannotBeBound) {
    if (kmiotest::runningUnderWine()) {
        GTEST_SKIP() << "Wine lets a socket bind an address that no interface has; Windows refuses it";
    }
    // 192.0.2.1 belongs to no interface here: no device to bind to, and the address cannot be bound.
    EXPECT_EQ(thrown<NetworkException>([] { createConnection({0xC0000201}); }),
              "Could not bind to iface address: " + kmio::systemErrorText(kmiotest::kAddressNotAvailable));
}

TEST(Connection, ReceiveTimesOut) {
    auto c = createConnection({});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Received{}.from(*c, 150));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 140ms);
}

TEST(Connection, CloseWakesABlockedReceiveAtOnce) {
    for (const bool wait : {true, false}) {
        auto c = createConnection({kLoopback});
        auto pending = std::async(std::launch::async, [c] {
            // Stray discovery traffic may arrive; only the close ends the loop.
            for (Received r; r.from(*c, 60000);) {
            }
            return std::chrono::steady_clock::now();
        });
        std::this_thread::sleep_for(50ms);
        const auto closedAt = std::chrono::steady_clock::now();
        c->close(wait);
        ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
        EXPECT_LT(pending.get() - closedAt, 5s);
        EXPECT_FALSE(Received{}.from(*c, 60000));  // returns at once after close
    }
}

TEST(Connection, SendsDirectedBroadcastAndMulticastPerChannel) {
    kmiotest::UdpSocket broadcastListener(kmiotest::kLoopbackBroadcast, 65111);
    kmiotest::UdpSocket groupListener(kmiotest::kGroup, 65110);
    auto c = createConnection({kLoopback});

    c->send(1, marker(3));
    EXPECT_TRUE(broadcastListener.receive(is(marker(3))));
    EXPECT_FALSE(groupListener.receive(is(marker(3)), 300ms));
    c->send(2, marker(4));
    EXPECT_TRUE(groupListener.receive(is(marker(4))));
    EXPECT_FALSE(broadcastListener.receive(is(marker(4)), 300ms));
    c->send(0, marker(5));
    EXPECT_TRUE(broadcastListener.receive(is(marker(5))));
    EXPECT_TRUE(groupListener.receive(is(marker(5))));
}

TEST(Connection, ReceivesOnTheChannelTheDatagramCameOver) {
    if (kmiotest::runningUnderWine()) {
        GTEST_SKIP() << kmiotest::kWineHearsNoLoopbackBroadcasts;
    }
    auto c = createConnection({kLoopback});
    kmiotest::UdpSocket device(kLoopback, 0);
    // A unicast reply to the port (what a device sends back) arrives on the broadcast channel.
    const std::tuple<std::uint32_t, std::uint16_t, unsigned> routes[] = {
        {kmiotest::kLoopbackBroadcast, 65111, 1}, {kmiotest::kGroup, 65110, 2}, {kLoopback, 65111, 1}};
    std::uint8_t tag = 6;
    for (const auto& [address, port, id] : routes) {
        Received r;
        device.sendTo(address, port, marker(tag));
        ASSERT_TRUE(r.awaited(*c, marker(tag++))) << address;
        EXPECT_EQ(r.id, id) << address;
        EXPECT_EQ(r.source, kLoopback);
    }
}

TEST(Connection, DatagramLargerThanTheBufferFails) {
    auto c = createConnection({kLoopback});
    kmiotest::UdpSocket(kLoopback, 0).sendTo(kLoopback, 65111, Bytes(1500, 0xEE));
    std::string error;
    EXPECT_TRUE(kmiotest::eventually([&] {
        error = thrown<NetworkException>([&] { Received{}.from(*c, 100); });
        return error != "no exception";
    }));
    EXPECT_EQ(error, "Could not receive datagram: " + kmio::systemErrorText(kmiotest::kMessageTooLong));
}

}  // namespace
}  // namespace kalometnd
