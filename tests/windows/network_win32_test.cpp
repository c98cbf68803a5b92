// IoNetwork over WinSock against a peer on loopback.
#include <gtest/gtest.h>

#include <string>

#include "network/io_network.h"
#include "support/callback_sink.h"
#include "winsock_peer.h"

namespace {

using kmiotest::raw;

// The locators here name hosts: no serial number is ever looked up.
kmio::SerialNumberResolver noDevices() {
    return [](const std::string&, const kmio::NetworkOpenOptions&, kmio::DiscoveredAddress&) {
        return KM_IO_ERR_NOT_FOUND;
    };
}

struct Connected {
    kmio::Socket listener = kmiotest::loopbackSocket(SOCK_STREAM);
    kmiotest::Sink sink;
    std::shared_ptr<kmio::IoNetwork> device;
    kmio::Socket peer;

    std::uint32_t open(const std::string& options = "") {
        ::listen(raw(listener), 1);
        const std::string locator = "network:127.0.0.1:" + std::to_string(kmiotest::localPort(listener));
        device = std::make_shared<kmio::IoNetwork>(locator, options, &sink, kmiotest::Sink::onReceive,
                                                   kmiotest::Sink::onError, noDevices());
        const std::uint32_t result = device->open(device);
        if (result == KM_IO_OK) {
            peer.reset(static_cast<kmio::Socket::Native>(::accept(raw(listener), nullptr, nullptr)));
        }
        return result;
    }
};

TEST(IoNetworkWin32, BytesFlowBothWaysAndAClosedPeerGivesLinkLost) {
    Connected link;
    ASSERT_EQ(link.open(), KM_IO_OK);
    ASSERT_TRUE(link.peer);

    const std::string toPeer(5000, 'x');
    ASSERT_EQ(link.device->send(reinterpret_cast<const std::uint8_t*>(toPeer.data()), toPeer.size()),
              KM_IO_OK);
    std::string arrived;
    while (arrived.size() < toPeer.size()) {
        char buffer[2048];
        const int n = ::recv(raw(link.peer), buffer, sizeof buffer, 0);
        ASSERT_GT(n, 0);
        arrived.append(buffer, static_cast<std::size_t>(n));
    }
    EXPECT_EQ(arrived, toPeer);

    const std::string fromPeer = "reply from the device";
    ASSERT_EQ(::send(raw(link.peer), fromPeer.data(), static_cast<int>(fromPeer.size()), 0),
              static_cast<int>(fromPeer.size()));
    ASSERT_TRUE(link.sink.waitUntil([&] { return link.sink.bytes.size() == fromPeer.size(); }));
    EXPECT_EQ(std::string(link.sink.bytes.begin(), link.sink.bytes.end()), fromPeer);

    link.peer.reset();
    ASSERT_TRUE(link.sink.waitUntil([&] { return link.sink.errors.size() >= 2; }))
        << "a closed peer is reported on every pass until close";
    EXPECT_EQ(link.sink.errors[0], KM_IO_ERR_LINK_LOST);
    EXPECT_EQ(link.sink.errors[1], KM_IO_ERR_LINK_LOST);
    link.device->close(true);
}

TEST(IoNetworkWin32, CloseWithWaitEndsTheThreadAndLaterSendsFail) {
    Connected link;
    ASSERT_EQ(link.open(), KM_IO_OK);
    link.device->close(true);
    link.sink.closed = true;
    const std::uint8_t byte = 1;
    EXPECT_EQ(link.device->send(&byte, 1), KM_IO_ERR_SEND_FAILED);
    EXPECT_EQ(link.sink.callsAfterClose, 0);
}

TEST(IoNetworkWin32, NoListenerWithinTheTimeoutIsNotFound) {
    // A port nobody listens on: bound but not listening.
    const kmio::Socket idle = kmiotest::loopbackSocket(SOCK_STREAM);
    kmiotest::Sink sink;
    const std::string locator = "network:127.0.0.1:" + std::to_string(kmiotest::localPort(idle));
    const auto device =
        std::make_shared<kmio::IoNetwork>(locator, "connect-timeout 300", &sink, kmiotest::Sink::onReceive,
                                          kmiotest::Sink::onError, noDevices());
    EXPECT_EQ(device->open(device), KM_IO_ERR_NOT_FOUND);
}

TEST(IoNetworkWin32, UnknownHostIsNotFound) {
    kmiotest::Sink sink;
    const auto device =
        std::make_shared<kmio::IoNetwork>("network:no-such-host.invalid:4000", "", &sink,
                                          kmiotest::Sink::onReceive, kmiotest::Sink::onError, noDevices());
    EXPECT_EQ(device->open(device), KM_IO_ERR_NOT_FOUND);
}

}  // namespace
