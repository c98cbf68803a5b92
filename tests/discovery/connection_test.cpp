#include "discovery/connection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "discovery/exceptions.h"
#include "nd_test_support.h"

namespace kalometnd {
namespace {

using namespace std::chrono_literals;
using ndtest::Bytes;
using ndtest::kLoopback;

// A datagram that no other test sends, so a receiver can tell it from stray traffic.
Bytes marker(std::uint8_t tag) {
    ndtest::TokenBytes token{};
    token.fill(tag);
    token[0] = 0x5A;
    return ndtest::handDatagram(0x21, 1, 0, "conn-test", token, {});
}

std::function<bool(const ndtest::Datagram&)> is(const Bytes& expected) {
    return [expected](const ndtest::Datagram& d) { return d.bytes == expected; };
}

// Receives on the connection until `expected` arrives or 5 s pass.
bool receiveExpected(Connection& c, const Bytes& expected, unsigned& networkId, std::uint32_t& source) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    std::vector<std::uint8_t> data;
    while (std::chrono::steady_clock::now() < deadline) {
        if (c.receive(data, networkId, source, 500) && data == expected) {
            return true;
        }
    }
    return false;
}

TEST(Connection, LoopbackIdsAndNames) {
    auto c = createConnection({kLoopback});
    EXPECT_EQ(c->networkName(1), "Broadcast (127.0.0.1)");
    EXPECT_EQ(c->networkName(2), "Multicast (127.0.0.1)");
    EXPECT_EQ(c->networkName(0), "Broadcast (127.0.0.1), Multicast (127.0.0.1)");
    try {
        c->networkName(3);
        ADD_FAILURE() << "no exception";
    } catch (const InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "Network id out of range");
    }
    try {
        c->send(3, marker(1));
        ADD_FAILURE() << "no exception";
    } catch (const InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "Invalid network id");
    }
    c->close(true);
    EXPECT_EQ(c->networkName(1), "");
    EXPECT_NO_THROW(c->send(3, marker(1)));  // closed: nothing happens, not even the id check
}

TEST(Connection, UnassignedAddressFailsWithTheSystemMessage) {
    // 192.0.2.1 belongs to no interface here: no device to bind to, and the address cannot be bound.
    try {
        createConnection({0xC0000201});
        ADD_FAILURE() << "no exception";
    } catch (const NetworkException& e) {
        EXPECT_EQ(std::string(e.what()), "Could not bind to iface address: Cannot assign requested address");
    }
}

TEST(Connection, EmptySetHasNoChannelsAndTimesOut) {
    auto c = createConnection({});
    EXPECT_EQ(c->networkName(0), "");
    EXPECT_THROW(c->networkName(1), InvalidArgumentException);
    EXPECT_NO_THROW(c->send(0, marker(2)));
    std::vector<std::uint8_t> data;
    unsigned id = 99;
    std::uint32_t source = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(c->receive(data, id, source, 150));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 140ms);
}

TEST(Connection, CloseWakesABlockedReceiveAtOnce) {
    for (const bool wait : {true, false}) {
        auto c = createConnection({kLoopback});
        auto pending = std::async(std::launch::async, [c] {
            std::vector<std::uint8_t> data;
            unsigned id = 0;
            std::uint32_t source = 0;
            // Stray discovery traffic may arrive; only the close ends the loop.
            while (c->receive(data, id, source, 60000)) {
            }
            return std::chrono::steady_clock::now();
        });
        std::this_thread::sleep_for(50ms);
        const auto closedAt = std::chrono::steady_clock::now();
        c->close(wait);
        ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
        EXPECT_LT(pending.get() - closedAt, 5s);
        std::vector<std::uint8_t> data;
        unsigned id = 0;
        std::uint32_t source = 0;
        EXPECT_FALSE(c->receive(data, id, source, 60000));  // returns at once after close
    }
}

TEST(Connection, SendsDirectedBroadcastAndMulticastPerChannel) {
    ndtest::UdpSocket broadcastListener(ndtest::kLoopbackBroadcast, 65111);
    ndtest::UdpSocket groupListener(ndtest::kGroup, 65110);
    groupListener.joinGroupOnLoopback();
    auto c = createConnection({kLoopback});

    const Bytes toBroadcast = marker(3);
    c->send(1, toBroadcast);
    EXPECT_TRUE(broadcastListener.receiveMatching(is(toBroadcast)));
    EXPECT_FALSE(groupListener.receiveMatching(is(toBroadcast), 300ms));

    const Bytes toGroup = marker(4);
    c->send(2, toGroup);
    EXPECT_TRUE(groupListener.receiveMatching(is(toGroup)));
    EXPECT_FALSE(broadcastListener.receiveMatching(is(toGroup), 300ms));

    const Bytes toAll = marker(5);
    c->send(0, toAll);
    EXPECT_TRUE(broadcastListener.receiveMatching(is(toAll)));
    EXPECT_TRUE(groupListener.receiveMatching(is(toAll)));
}

TEST(Connection, ReceivesOnTheChannelTheDatagramCameOver) {
    auto c = createConnection({kLoopback});
    ndtest::UdpSocket device(kLoopback, 0);
    device.multicastFromLoopback();
    unsigned id = 0;
    std::uint32_t source = 0;

    const Bytes viaBroadcast = marker(6);
    device.sendTo(ndtest::kLoopbackBroadcast, 65111, viaBroadcast);
    ASSERT_TRUE(receiveExpected(*c, viaBroadcast, id, source));
    EXPECT_EQ(id, 1u);
    EXPECT_EQ(source, kLoopback);

    const Bytes viaGroup = marker(7);
    device.sendTo(ndtest::kGroup, 65110, viaGroup);
    ASSERT_TRUE(receiveExpected(*c, viaGroup, id, source));
    EXPECT_EQ(id, 2u);

    // A unicast reply to the port (what a device sends back) arrives too.
    const Bytes unicast = marker(8);
    device.sendTo(kLoopback, 65111, unicast);
    ASSERT_TRUE(receiveExpected(*c, unicast, id, source));
    EXPECT_EQ(id, 1u);
}

TEST(Connection, DatagramLargerThanTheBufferFails) {
    auto c = createConnection({kLoopback});
    ndtest::UdpSocket device(kLoopback, 0);
    device.sendTo(kLoopback, 65111, Bytes(1500, 0xEE));
    std::vector<std::uint8_t> data;
    unsigned id = 0;
    std::uint32_t source = 0;
    bool threw = false;
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!threw && std::chrono::steady_clock::now() < deadline) {
        try {
            c->receive(data, id, source, 500);
        } catch (const NetworkException& e) {
            EXPECT_EQ(std::string(e.what()), "Could not receive datagram: Message too long");
            threw = true;
        }
    }
    EXPECT_TRUE(threw);
}

}  // namespace
}  // namespace kalometnd
