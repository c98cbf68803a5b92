#include "network/io_network.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "support/callback_sink.h"
#include "support/checks.h"
#include "support/tcp_peer.h"

namespace kmio {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using kmiotest::Sink;

bool isLinkLost(std::uint32_t code) {
    return code == KM_IO_ERR_LINK_LOST;
}

// Finds "SN1" at 127.0.0.1 on the given port; nothing else exists.
SerialNumberResolver resolverFor(std::uint16_t port) {
    return [port](const std::string& serial, const NetworkOpenOptions&, DiscoveredAddress& found) {
        found = {0x7F000001, port};
        return serial == "SN1" ? KM_IO_OK : KM_IO_ERR_NOT_FOUND;
    };
}

// For locators that name a host: no serial number is ever found.
SerialNumberResolver noDevices() {
    return
        [](const std::string&, const NetworkOpenOptions&, DiscoveredAddress&) { return KM_IO_ERR_NOT_FOUND; };
}

struct Opened {
    std::shared_ptr<IoNetwork> device;
    std::uint32_t result;
    Clock::duration took;
};

Opened open(const std::string& locator, const std::string& options, Sink& sink,
            SerialNumberResolver resolver = noDevices()) {
    auto device = std::make_shared<IoNetwork>(locator, options, &sink, &Sink::onReceive, &Sink::onError,
                                              std::move(resolver));
    const auto start = Clock::now();
    const std::uint32_t result = device->open(device);
    return {device, result, Clock::now() - start};
}

TEST(IoNetwork, LocatorAndPortRulesReachTheirResults) {
    kmiotest::TcpPeer peer;
    std::uint16_t refusedPort = 0;
    const Socket boundOnly = kmiotest::tcpListener(-1, refusedPort);
    const std::string p = std::to_string(peer.port());
    // Labels longer than 63 bytes are rejected by the resolver itself, so no
    // query leaves the machine; ".invalid" keeps the name unresolvable anyway.
    const std::string unknownHost = std::string(70, 'a') + ".invalid";
#if defined(_WIN32)
    // The Windows link waits for the connect by writability alone, so a
    // refusal shows only when that wait ends: shorten it.
    const std::string refusedOptions = "connect-timeout 300";
#else
    const std::string refusedOptions;
#endif
    const struct {
        std::string locator, options;
        std::uint32_t expected;
    } cases[] = {
        {"network:127.0.0.1:" + p, "", KM_IO_OK},
        {"network:localhost:" + p, "", KM_IO_OK},
        {"network:127.0.0.1", "port " + p, KM_IO_OK},
        {"network:127.0.0.1:0", "port " + p, KM_IO_OK},
        {"network:127.0.0.1:70000", "", KM_IO_ERR_BAD_OPTIONS},
        {"network:127.0.0.1:abc", "", KM_IO_ERR_BAD_OPTIONS},
        {"network:127.0.0.1", "", KM_IO_ERR_BAD_OPTIONS},
        {"network:127.0.0.1:" + p, "port 70000", KM_IO_ERR_BAD_OPTIONS},
        {"network:sn:SN1", "", KM_IO_OK},
        {"network:sn:SN1:0", "", KM_IO_OK},
        {"network:sn:SN2", "port " + p, KM_IO_ERR_NOT_FOUND},
        {"network:" + unknownHost + ":" + p, "", KM_IO_ERR_NOT_FOUND},
        {"network:127.0.0.1:" + std::to_string(refusedPort), refusedOptions, KM_IO_ERR_NOT_FOUND},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.locator + " / " + c.options);
        Sink sink;
        Opened opened = open(c.locator, c.options, sink, resolverFor(peer.port()));
        EXPECT_EQ(opened.result, c.expected);
        // Well under the default 5 s connect timeout: a refused address and an
        // unknown name fail at once.
        EXPECT_LT(opened.took, 2s);
        if (opened.result == KM_IO_OK) {
            opened.device->close(true);
        }
    }
}

TEST(IoNetwork, ConnectTimeoutIsReadFromTheRawOptionText) {
    // A listener whose accept queue is full drops new connection requests, so
    // a connect to it waits for the whole timeout.
    std::uint16_t port = 0;
    const Socket full = kmiotest::tcpListener(0, port);
    const Socket queued = kmiotest::openSocket(SOCK_STREAM);
    ASSERT_TRUE(kmiotest::connectTo(queued, INADDR_LOOPBACK, port));

    // The second line is unknown to the option set, so only the raw look-up,
    // which finds the key inside the longer one, shortens the 5 s default.
    for (const char* options : {"connect-timeout 300", "my-connect-timeout 300"}) {
        SCOPED_TRACE(options);
        Sink sink;
        Opened opened = open("network:127.0.0.1:" + std::to_string(port), options, sink);
        EXPECT_EQ(opened.result, KM_IO_ERR_NOT_FOUND);
        EXPECT_GE(opened.took, 250ms);
        EXPECT_LT(opened.took, 3s);
    }
}

TEST(IoNetwork, MovesSixteenMebibytesBothWaysIntactAndHasNoProperties) {
    kmiotest::TcpPeer peer;
    Sink sink;
    Opened opened = open("network:127.0.0.1:" + std::to_string(peer.port()), "", sink);
    ASSERT_EQ(opened.result, KM_IO_OK);
    EXPECT_EQ(opened.device->send(nullptr, 0), KM_IO_OK);
    // More than the socket buffers of both directions hold: the send only
    // completes if receiving goes on while it blocks.
    std::vector<std::uint8_t> data(16 << 20);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>((i * 7) ^ (i >> 9));
    }
    EXPECT_EQ(opened.device->send(data.data(), data.size()), KM_IO_OK);
    EXPECT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= data.size(); }));

    char value[8] = "stale";
    std::size_t size = sizeof value;
    EXPECT_EQ(opened.device->getProperty("network-host", value, &size), KM_IO_ERR_UNKNOWN_PROPERTY);
    EXPECT_EQ(value[0], '\0');
    EXPECT_EQ(size, 0u);
    opened.device->close(true);
    EXPECT_TRUE(sink.bytes == data);
    EXPECT_LE(sink.largestBlock, 1024u);
    EXPECT_TRUE(sink.errors.empty());
}

TEST(IoNetwork, PeerCloseReportsLinkLostOnEveryPassUntilClosed) {
    kmiotest::TcpPeer peer(/*echo=*/false);
    Sink sink;
    Opened opened = open("network:127.0.0.1:" + std::to_string(peer.port()), "", sink);
    ASSERT_EQ(opened.result, KM_IO_OK);
    EXPECT_TRUE(sink.waitUntil([&] { return std::ranges::count_if(sink.errors, isLinkLost) >= 5; }));

    // The first bytes may still be accepted locally; the peer's reset then
    // fails a later send, without killing the process by SIGPIPE.
    const std::uint8_t byte = 0x55;
    std::uint32_t sent = KM_IO_OK;
    for (const auto start = Clock::now(); sent == KM_IO_OK && Clock::now() - start < 5s;) {
        sent = opened.device->send(&byte, 1);
    }
    EXPECT_EQ(sent, KM_IO_ERR_SEND_FAILED);
    opened.device->close(true);
    EXPECT_TRUE(std::ranges::all_of(sink.errors, isLinkLost));
    EXPECT_TRUE(sink.bytes.empty());
}

TEST(IoNetwork, CloseReturnsPromptlyAndTheThreadReleasesTheDevice) {
    kmiotest::TcpPeer peer;
    for (const bool wait : {true, true, true, false}) {
        Sink sink;
        Opened opened = open("network:127.0.0.1:" + std::to_string(peer.port()), "", sink);
        ASSERT_EQ(opened.result, KM_IO_OK);
        const std::weak_ptr<IoNetwork> watch = opened.device;
        const auto start = Clock::now();
        opened.device->close(wait);
        EXPECT_LT(Clock::now() - start, 250ms);
        if (wait) {
            // The thread has ended: no callback follows, and the socket is gone.
            sink.closed = true;
            const std::uint8_t byte = 1;
            EXPECT_EQ(opened.device->send(&byte, 1), KM_IO_ERR_SEND_FAILED);
        }
        // Without waiting, the receiving thread holds the device until it ends.
        opened.device.reset();
        EXPECT_TRUE(kmiotest::eventually([&] { return watch.expired(); }));
        EXPECT_TRUE(sink.waitUntil([&] { return sink.callsAfterClose == 0; }));
    }
}

TEST(IoNetwork, CloseEndsASendBlockedOnAPeerThatDoesNotRead) {
    std::uint16_t port = 0;
    const Socket silent = kmiotest::tcpListener(1, port);  // never accepts, never reads
    Sink sink;
    Opened opened = open("network:127.0.0.1:" + std::to_string(port), "", sink);
    ASSERT_EQ(opened.result, KM_IO_OK);
    const std::vector<std::uint8_t> data(64 << 20);
    std::atomic<std::uint32_t> sent{~0u};
    std::thread sender([&] { sent = opened.device->send(data.data(), data.size()); });
    std::this_thread::sleep_for(100ms);  // let the socket buffers fill
    const auto start = Clock::now();
    opened.device->close(true);
    EXPECT_LT(Clock::now() - start, 250ms);
    sender.join();
    EXPECT_EQ(sent, KM_IO_ERR_SEND_FAILED);
}

}  // namespace
}  // namespace kmio
