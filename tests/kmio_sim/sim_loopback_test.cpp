// kmio-sim as an independent client sees it: every datagram here is laid out
// by hand from the packet layout, never by the library's encoder.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <set>

#include "discovery/nd_test_support.h"
#include "support/child_process.h"

namespace kmiotest {
namespace {

using namespace std::chrono_literals;
using namespace kmiotest;

constexpr std::uint32_t kAny = 0xFFFFFFFF;

// A Discover Request: the bare 96-byte header, the token filled with one byte.
Bytes request(std::uint32_t selector, const std::string& serial, std::uint8_t tokenByte) {
    TokenBytes token;
    token.fill(tokenByte);
    return handHeader(96, 0x21, 1, selector, serial, token);
}

// A Discover Reply or Inform read by hand; nullopt when the layout is broken.
struct Announcement {
    std::uint8_t opcode, tokenByte, protocolId;
    std::uint32_t version, selector;
    std::string serial, info;
    bool available;
    std::uint16_t port;
};

std::optional<Announcement> parse(const Bytes& d) {
    const auto u32 = [&](std::size_t at) {
        return d[at] | d[at + 1] << 8 | d[at + 2] << 16 | std::uint32_t(d[at + 3]) << 24;
    };
    if (d.size() < 102 || d.size() % 4 != 0 || d[0] != 0xC2 ||
        static_cast<std::size_t>(d[1] | d[2] << 8) != d.size() - 3 || std::memcmp(&d[4], "PDNK", 4) != 0 ||
        d[100] > 63 || d.size() < 102u + d[100] || d[101 + d[100]] != 0) {
        return std::nullopt;
    }
    return Announcement{d[3],
                        d[80],
                        d[96],
                        u32(8),
                        u32(12),
                        reinterpret_cast<const char*>(&d[16]),
                        std::string(d.begin() + 101, d.begin() + 101 + d[100]),
                        d[97] != 0,
                        static_cast<std::uint16_t>(d[98] | d[99] << 8)};
}

// Announcements of our own devices (prefix LB: other simulators may share
// loopback) until `wanted` have come, then `grace` longer to catch extras.
std::vector<Announcement> collect(const UdpSocket& socket, std::size_t wanted,
                                  std::chrono::milliseconds grace) {
    std::vector<Announcement> found;
    auto deadline = std::chrono::steady_clock::now() + (wanted == 0 ? grace : 10s);
    while (std::chrono::steady_clock::now() < deadline) {
        const auto d = socket.receive({}, 20ms);
        const auto a = d ? parse(d->bytes) : std::nullopt;
        if (a && a->serial.starts_with("LB")) {
            found.push_back(*a);
            if (found.size() == wanted) {
                deadline = std::chrono::steady_clock::now() + grace;
            }
        }
    }
    return found;
}

std::unique_ptr<ChildProcess> startSim(std::uint16_t firstPort, std::vector<std::string> extra) {
    extra.insert(extra.begin(), {KMIO_SIM_PATH, "--iface", "127.0.0.1", "--serial-prefix", "LB",
                                 "--first-port", std::to_string(firstPort), "--info", "loopback test"});
    auto sim = std::make_unique<ChildProcess>(extra);
    EXPECT_TRUE(sim->waitForLine("ready", 10s)) << sim->out() << sim->err();
    return sim;
}

}  // namespace

TEST(SimLoopbackTest, AnswersHandBuiltRequestsByBroadcastAndMulticast) {
    const auto sim = startSim(47410, {"--count", "3"});
    const struct {
        std::uint32_t address;
        std::uint16_t port;
        std::uint32_t selector;
        std::string serial;
        std::multiset<std::string> answering;
    } cases[] = {
        {kLoopbackBroadcast, 65111, kAny, "", {"LB0001", "LB0002", "LB0003"}},
        {kGroup, 65110, kAny, "", {"LB0001", "LB0002", "LB0003"}},
        {kLoopbackBroadcast, 65111, 7, "LB0002", {"LB0002"}},
        {kGroup, 65110, 7, "", {"LB0001", "LB0002", "LB0003"}},
        {kGroup, 65110, 5, "", {}},
        {kLoopbackBroadcast, 65111, kAny, "LB0009", {}},
    };
    const UdpSocket client(kLoopback, 0);
    std::uint8_t tokenByte = 0x10;
    for (const auto& c : cases) {
        SCOPED_TRACE("selector " + std::to_string(c.selector) + ", serial '" + c.serial + "', port " +
                     std::to_string(c.port));
        client.sendTo(c.address, c.port, request(c.selector, c.serial, ++tokenByte));
        std::multiset<std::string> answered;
        for (const Announcement& a : collect(client, c.answering.size(), 200ms)) {
            answered.insert(a.serial);
            const unsigned index = static_cast<unsigned>(std::stoul(a.serial.substr(2))) - 1;
            EXPECT_EQ(a.opcode, 0xA1);
            EXPECT_EQ(a.version, 1u);
            EXPECT_EQ(a.selector, 7u);  // the default device type
            EXPECT_EQ(a.tokenByte, tokenByte);
            EXPECT_EQ(a.protocolId, 42);
            EXPECT_TRUE(a.available);
            EXPECT_EQ(a.port, 47410 + index);
            EXPECT_EQ(a.info, "loopback test");
        }
        EXPECT_EQ(answered, c.answering);
    }
    EXPECT_EQ(sim->terminate(), 0);
    EXPECT_NE(sim->out().find("stopping on signal 15"), std::string::npos) << sim->out();
}

TEST(SimLoopbackTest, TcpClientGetsItsBytesBackAndMakesTheDeviceUnavailable) {
    const UdpSocket informs(kGroup, 65110);
    const auto sim = startSim(47420, {"--count", "2", "--device-type", "3"});
    const auto connectTo = [](std::uint16_t port) {
        kmio::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in to = kmio::ipv4SocketAddress(kLoopback, port);
        EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
        return fd;
    };
    const auto nextInformOf = [&](const std::string& serial) -> std::optional<Announcement> {
        for (int i = 0; i < 10; ++i) {
            for (const Announcement& a : collect(informs, 1, 0ms)) {
                if (a.serial == serial && a.opcode == 0xA2) {
                    return a;
                }
            }
        }
        return std::nullopt;
    };
    ASSERT_TRUE(nextInformOf("LB0002"));  // the start-up announcement
    {
        const kmio::UniqueFd client = connectTo(47421);
        const auto busy = nextInformOf("LB0002");
        ASSERT_TRUE(busy);
        EXPECT_FALSE(busy->available);
        EXPECT_EQ(busy->selector, 3u);

        const char ping[] = "ping\x00\xff";
        ASSERT_EQ(::send(client.get(), ping, sizeof ping, 0), static_cast<ssize_t>(sizeof ping));
        char echo[sizeof ping] = {};
        ASSERT_EQ(::recv(client.get(), echo, sizeof echo, MSG_WAITALL), static_cast<ssize_t>(sizeof echo));
        EXPECT_EQ(std::memcmp(echo, ping, sizeof ping), 0);

        // A reply tells the same, and a second client is turned away.
        const UdpSocket asker(kLoopback, 0);
        asker.sendTo(kLoopbackBroadcast, 65111, request(kAny, "LB0002", 0x33));
        const auto replies = collect(asker, 1, 0ms);
        ASSERT_EQ(replies.size(), 1u);
        EXPECT_FALSE(replies[0].available);
        const kmio::UniqueFd second = connectTo(47421);
        char byte = 0;
        EXPECT_EQ(::recv(second.get(), &byte, 1, 0), 0);
    }
    const auto free = nextInformOf("LB0002");
    ASSERT_TRUE(free);
    EXPECT_TRUE(free->available);
    EXPECT_TRUE(sim->waitForLine("client disconnected from LB0002", 5s)) << sim->out();
}

TEST(SimLoopbackTest, FaultOptionsSpoilTheReplyAsAsked) {
    const struct {
        std::string option, value;
        std::size_t malformedFirst;
        std::uint32_t version;
        std::chrono::milliseconds atLeast;
    } cases[] = {
        {"--version", "2", 0, 2, 0ms},
        {"--garbage", "5", 5, 1, 0ms},
        {"--delay-ms", "300", 0, 1, 300ms},
    };
    std::uint16_t port = 47430;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.option);
        const auto sim = startSim(++port, {c.option, c.value, "--count", "1", "--no-tcp"});
        const UdpSocket client(kLoopback, 0);
        const auto sent = std::chrono::steady_clock::now();
        client.sendTo(kGroup, 65110, request(kAny, "", 0x44));
        for (std::size_t i = 0; i < c.malformedFirst; ++i) {
            const auto d = client.receive({}, 5s);
            ASSERT_TRUE(d);
            EXPECT_FALSE(parse(d->bytes)) << "datagram " << i << " should be malformed";
        }
        const auto d = client.receive({}, 5s);
        ASSERT_TRUE(d);
        EXPECT_GE(std::chrono::steady_clock::now() - sent, c.atLeast);
        const auto reply = parse(d->bytes);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->version, c.version);
        EXPECT_EQ(reply->port, port);
        EXPECT_EQ(sim->terminate(), 0);
    }
}

TEST(SimLoopbackTest, RefusesCommandLinesItCannotServe) {
    const struct {
        std::vector<std::string> arguments;
        int exitCode;
        std::string message;
    } cases[] = {
        {{"--count", "3"}, 2, "at least one --iface is needed"},
        {{"--iface", "127.0.0"}, 2, "--iface needs an IPv4 address"},
        {{"--iface", "127.0.0.1", "--iface", "127.0.0.1"}, 2, "is given twice"},
        {{"--iface", "127.0.0.1", "--count", "0"}, 2, "--count must be at least 1"},
        {{"--iface", "127.0.0.1", "--first-port", "65535", "--count", "2"}, 2, "must stay within"},
        {{"--iface", "127.0.0.1", "--device-type", "3", "--selector", "4"}, 2, "one setting"},
        {{"--iface", "127.0.0.1", "--info", std::string(64, 'i')}, 2, "longer than 63"},
        {{"--iface", "127.0.0.1", "--bogus"}, 2, "--bogus: unknown option"},
        {{"--iface", "192.0.2.77"}, 1, "192.0.2.77 is not the address of a local interface"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv{KMIO_SIM_PATH};
        argv.insert(argv.end(), c.arguments.begin(), c.arguments.end());
        const RunResult r = run(argv);
        EXPECT_EQ(r.status, c.exitCode) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
}

}  // namespace kmiotest
