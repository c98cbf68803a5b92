// ConnectionWinSock2 on loopback: channel ids and names, receiving on the
// channel a datagram came over, time-out, and close waking a blocked receive.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <vector>

#include "discovery/connection.h"
#include "discovery/exceptions.h"
#include "discovery/packet.h"
#include "support/checks.h"
#include "winsock_peer.h"

namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;

TEST(ConnectionWinSock2, LoopbackIdsAndNames) {
    const auto connection = kalometnd::createConnection({kLoopback});
    EXPECT_EQ(connection->networkName(1), "Broadcast (127.0.0.1)");
    EXPECT_EQ(connection->networkName(2), "Multicast (127.0.0.1)");
    EXPECT_EQ(connection->networkName(0), "Broadcast (127.0.0.1), Multicast (127.0.0.1)");
    EXPECT_EQ(kmiotest::thrown<kalometnd::InvalidArgumentException>([&] { connection->networkName(3); }),
              "Network id out of range");
    const std::vector<std::uint8_t> datagram{1, 2, 3};
    EXPECT_EQ(kmiotest::thrown<kalometnd::InvalidArgumentException>([&] { connection->send(3, datagram); }),
              "Invalid network id");
    connection->close(true);
    EXPECT_EQ(connection->networkName(1), "");
}

TEST(ConnectionWinSock2, ReceivesOnTheChannelTheDatagramCameOver) {
    const auto connection = kalometnd::createConnection({kLoopback});
    const kmio::Socket sender = kmiotest::loopbackSocket(SOCK_DGRAM);
    const std::vector<std::uint8_t> sent{0x4B, 0x4D, 0x49, 0x4F, 7};
    const sockaddr_in to = kmio::ipv4SocketAddress(kLoopback, kalometnd::kBroadcastPort);
    ASSERT_EQ(::sendto(kmiotest::raw(sender), reinterpret_cast<const char*>(sent.data()),
                       static_cast<int>(sent.size()), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<int>(sent.size()));

    // Other programs on this machine may talk on the discovery ports too:
    // wait for our datagram among theirs.
    std::vector<std::uint8_t> data;
    unsigned networkId = 0;
    std::uint32_t source = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (data != sent && std::chrono::steady_clock::now() < deadline) {
        connection->receive(data, networkId, source, 1000);
    }
    ASSERT_EQ(data, sent);
    EXPECT_EQ(networkId, 1u) << "the broadcast channel is bound to port 65111";
    EXPECT_EQ(source, kLoopback);
    connection->close(true);
}

TEST(ConnectionWinSock2, ReceiveTimesOutAndCloseWakesAWaitingOne) {
    const auto connection = kalometnd::createConnection({kLoopback});
    std::vector<std::uint8_t> data;
    unsigned networkId = 0;
    std::uint32_t source = 0;
    EXPECT_FALSE(connection->receive(data, networkId, source, 50));

    auto waiting = std::async(std::launch::async, [&] {
        std::vector<std::uint8_t> got;
        unsigned id = 0;
        std::uint32_t from = 0;
        return connection->receive(got, id, from, 60000);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    connection->close(true);
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready)
        << "close must not wait out the 60 s receive";
    EXPECT_FALSE(waiting.get());
    EXPECT_FALSE(connection->receive(data, networkId, source, 5000)) << "closed: false at once";
}

}  // namespace
