// Discovery across two separate networks: what a device says on one
// interface must reach the host on that interface's channels only.

#include <chrono>
#include <map>
#include <set>

#include "discovery/adapters.h"
#include "discovery/connection.h"
#include "discovery/device_filter.h"
#include "discovery/host.h"
#include "discovery/packet.h"
#include "netns/netns_fixture.h"

namespace kmiotest {
namespace {

using namespace std::chrono_literals;
using kalometnd::Packet;

// One reply or inform as the connection delivered it.
struct Heard {
    Packet packet;
    unsigned networkId = 0;
    std::uint32_t source = 0;
};

// Receives replies and informs (the host's own requests echo back and are
// dropped) until `enough` holds, then `grace` longer to catch strays.
template <typename Enough>
std::vector<Heard> collect(kalometnd::Connection& connection, Enough enough,
                           std::chrono::milliseconds grace) {
    std::vector<Heard> heard;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    bool satisfied = false;
    while (std::chrono::steady_clock::now() < deadline) {
        Heard one;
        std::vector<std::uint8_t> data;
        if (connection.receive(data, one.networkId, one.source, 50) &&
            kalometnd::decode(data, one.packet) == kalometnd::DecodeResult::Valid &&
            (one.packet.opcode == kalometnd::OpCode::DiscoverReply ||
             one.packet.opcode == kalometnd::OpCode::DiscoverInform)) {
            heard.push_back(std::move(one));
        }
        if (!satisfied && enough(heard)) {
            satisfied = true;
            deadline = std::chrono::steady_clock::now() + grace;
        }
    }
    return heard;
}

// Device namespace 0 runs ONE0001 and ONE0002, namespace 1 runs TWO0001; on
// the host, interface i owns network ids 2i+1 (broadcast) and 2i+2 (multicast).
int networkOf(const std::string& serial) {
    return serial.starts_with("ONE") ? 0 : 1;
}

void expectOnItsOwnInterface(const Heard& heard) {
    const int i = networkOf(heard.packet.serialNumber);
    EXPECT_TRUE(heard.networkId == 2u * i + 1 || heard.networkId == 2u * i + 2)
        << heard.packet.serialNumber << " arrived on network id " << heard.networkId;
    EXPECT_EQ(heard.source, NetnsFixture::deviceAddress(i)) << heard.packet.serialNumber;
}

class NetnsDiscoveryTest : public NetnsTest {
protected:
    void startSimulators() {
        netns_->startSimulator(0, {"--count", "2", "--serial-prefix", "ONE"});
        netns_->startSimulator(1, {"--count", "1", "--serial-prefix", "TWO", "--device-type", "9"});
    }
};

TEST_F(NetnsDiscoveryTest, AdapterListReportsBothHostInterfacesWithTheirMasks) {
    const ScopedNetns inside(netns_->hostNamespace());
    const std::vector<kalometnd::AdapterInfo> adapters = kalometnd::listAdapters();
    ASSERT_EQ(adapters.size(), 2u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(adapters[i].adapterName, NetnsFixture::hostInterface(i));
        EXPECT_EQ(adapters[i].address, NetnsFixture::hostAddress(i));
        EXPECT_EQ(adapters[i].netmask, 0xFFFFFF00u);
    }
}

TEST_F(NetnsDiscoveryTest, InformsArriveByBroadcastAndMulticastOnTheirInterfaceOnly) {
    const ScopedNetns inside(netns_->hostNamespace());
    const auto connection =
        kalometnd::createConnection({NetnsFixture::hostAddress(0), NetnsFixture::hostAddress(1)});
    startSimulators();

    const std::set<std::pair<std::string, unsigned>> expected = {
        {"ONE0001", 1}, {"ONE0001", 2}, {"ONE0002", 1}, {"ONE0002", 2}, {"TWO0001", 3}, {"TWO0001", 4}};
    std::set<std::pair<std::string, unsigned>> seen;
    const auto heard = collect(
        *connection,
        [&](const std::vector<Heard>& all) {
            seen.clear();
            for (const Heard& h : all) {
                seen.emplace(h.packet.serialNumber, h.networkId);
            }
            return seen == expected;
        },
        300ms);
    EXPECT_EQ(seen, expected);
    for (const Heard& h : heard) {
        EXPECT_EQ(h.packet.opcode, kalometnd::OpCode::DiscoverInform);
        expectOnItsOwnInterface(h);
    }
}

TEST_F(NetnsDiscoveryTest, RequestsAreAnsweredByUnicastOnTheChannelsOfTheirInterface) {
    startSimulators();
    const ScopedNetns inside(netns_->hostNamespace());
    const auto connection =
        kalometnd::createConnection({NetnsFixture::hostAddress(0), NetnsFixture::hostAddress(1)});

    struct Case {
        unsigned networkId;
        std::string serial;
        std::set<std::string> answering;
    };
    const Case cases[] = {
        {0, "", {"ONE0001", "ONE0002", "TWO0001"}},
        {1, "", {"ONE0001", "ONE0002"}},
        {4, "", {"TWO0001"}},
        {2, "ONE0002", {"ONE0002"}},
        {3, "ONE0001", {}},
    };
    std::uint8_t tokenByte = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE("network id " + std::to_string(c.networkId) + ", serial '" + c.serial + "'");
        kalometnd::Token token{};
        token.fill(++tokenByte);
        connection->send(c.networkId,
                         kalometnd::encode(kalometnd::buildDiscoverRequest(0xFFFFFFFF, c.serial, token)));
        const auto answers = [&](const std::vector<Heard>& all) {
            std::multiset<std::string> serials;
            for (const Heard& h : all) {
                if (h.packet.opcode == kalometnd::OpCode::DiscoverReply && h.packet.token == token) {
                    serials.insert(h.packet.serialNumber);
                }
            }
            return serials;
        };
        const auto heard = collect(
            *connection,
            [&](const std::vector<Heard>& all) {
                const auto serials = answers(all);
                return std::set<std::string>(serials.begin(), serials.end()) == c.answering;
            },
            300ms);
        // Exactly once each: a request over broadcast and multicast is one request.
        EXPECT_EQ(answers(heard), std::multiset<std::string>(c.answering.begin(), c.answering.end()));
        for (const Heard& h : heard) {
            expectOnItsOwnInterface(h);
        }
    }
}

TEST_F(NetnsDiscoveryTest, DeviceFiltersOverBothInterfacesFindDevicesByType) {
    startSimulators();
    const ScopedNetns inside(netns_->hostNamespace());
    const auto host = std::make_shared<kalometnd::Host>();
    host->start({NetnsFixture::hostAddress(0), NetnsFixture::hostAddress(1)});
    kalometnd::DeviceFilter any(host, {}, {});
    kalometnd::DeviceFilter typeNine(host, {.selector = 9}, {});

    any.discover(500, "");
    std::map<std::string, kalometnd::DiscoverInfo> found;
    for (const kalometnd::DiscoverInfo& info : any.devices()) {
        found[info.serialNumber] = info;
    }
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found["ONE0001"].ipAddress, NetnsFixture::deviceAddress(0));
    EXPECT_EQ(found["ONE0002"].port, 55551);
    EXPECT_EQ(found["ONE0002"].selector, 7u);
    EXPECT_EQ(found["TWO0001"].ipAddress, NetnsFixture::deviceAddress(1));
    EXPECT_EQ(found["TWO0001"].selector, 9u);
    EXPECT_EQ(found["TWO0001"].protocolId, 42);

    typeNine.discover(500, "");
    const auto nines = typeNine.devices();
    ASSERT_EQ(nines.size(), 1u);
    EXPECT_EQ(nines[0].serialNumber, "TWO0001");
    host->stop();
}

}  // namespace
}  // namespace kmiotest
