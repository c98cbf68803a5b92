// Discovery across two separate networks: what a device says on one
// interface must reach the host on that interface's channels only.

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include "discovery/adapters.h"
#include "discovery/connection.h"
#include "discovery/packet.h"
#include "netns/netns_fixture.h"

namespace kmiotest {
namespace {

using namespace std::chrono_literals;
using kalometnd::OpCode;

// One reply or inform as the connection delivered it.
struct Heard {
    kalometnd::Packet packet;
    unsigned networkId = 0;
    std::uint32_t source = 0;
};

// Device namespace 0 runs ONE0001 and ONE0002, namespace 1 runs TWO0001; on
// the host, interface i owns network ids 2i+1 (broadcast) and 2i+2 (multicast).
// The test thread stays in the host namespace with a connection on both.
class NetnsDiscoveryTest : public NetnsTest {
protected:
    void SetUp() override {
        NetnsTest::SetUp();
        if (!IsSkipped() && !HasFailure()) {
            inside_.emplace(host_);
            connection_ = kalometnd::createConnection({hostAddress(0), hostAddress(1)});
        }
    }
    void TearDown() override {
        connection_.reset();
        inside_.reset();
        NetnsTest::TearDown();
    }
    void startSimulators() {
        startSimulator(0, {"--count", "2", "--serial-prefix", "ONE"});
        startSimulator(1, {"--count", "1", "--serial-prefix", "TWO", "--device-type", "9"});
    }

    // Receives replies and informs (the host's own requests echo back and are
    // dropped) until `enough` holds, then 300 ms longer to catch strays. Each
    // must come from its own device on its own interface's channels.
    std::vector<Heard> collect(const std::function<bool(const std::vector<Heard>&)>& enough) {
        std::vector<Heard> heard;
        auto deadline = std::chrono::steady_clock::now() + 10s;
        for (bool satisfied = false; std::chrono::steady_clock::now() < deadline;) {
            Heard one;
            std::vector<std::uint8_t> data;
            if (connection_->receive(data, one.networkId, one.source, 50) &&
                kalometnd::decode(data, one.packet) == kalometnd::DecodeResult::Valid &&
                (one.packet.opcode == OpCode::DiscoverReply || one.packet.opcode == OpCode::DiscoverInform)) {
                const unsigned i = one.packet.serialNumber.starts_with("ONE") ? 0 : 1;
                EXPECT_TRUE(one.networkId == 2 * i + 1 || one.networkId == 2 * i + 2)
                    << one.packet.serialNumber << " arrived on network id " << one.networkId;
                EXPECT_EQ(one.source, deviceAddress(static_cast<int>(i))) << one.packet.serialNumber;
                heard.push_back(std::move(one));
            }
            // Evaluated to the end, so that the caller's view includes strays.
            if (enough(heard) && !satisfied) {
                satisfied = true;
                deadline = std::chrono::steady_clock::now() + 300ms;
            }
        }
        return heard;
    }

    std::optional<ScopedNetns> inside_;
    std::shared_ptr<kalometnd::Connection> connection_;
};

// An address with prefix length 0 lists netmask all ones, not 0.0.0.0.
TEST_F(NetnsDiscoveryTest, AdapterListReportsEveryHostAddressWithItsMask) {
    const RunResult added = run({"ip", "-n", host_, "addr", "add", "10.78.0.1/0", "dev", hostInterface(0)});
    ASSERT_EQ(added.status, 0) << added.out << added.err;
    std::map<std::uint32_t, std::pair<std::string, std::uint32_t>> listed;
    for (const kalometnd::AdapterInfo& adapter : kalometnd::listAdapters()) {
        listed[adapter.address] = {adapter.adapterName, adapter.netmask};
    }
    EXPECT_EQ(listed, (std::map<std::uint32_t, std::pair<std::string, std::uint32_t>>{
                          {hostAddress(0), {hostInterface(0), 0xFFFFFF00u}},
                          {hostAddress(1), {hostInterface(1), 0xFFFFFF00u}},
                          {0x0A4E0001, {hostInterface(0), 0xFFFFFFFFu}},
                      }));
}

TEST_F(NetnsDiscoveryTest, InformsArriveByBroadcastAndMulticastOnTheirInterfaceOnly) {
    startSimulators();
    const std::set<std::pair<std::string, unsigned>> expected = {
        {"ONE0001", 1}, {"ONE0001", 2}, {"ONE0002", 1}, {"ONE0002", 2}, {"TWO0001", 3}, {"TWO0001", 4}};
    std::set<std::pair<std::string, unsigned>> seen;
    for (const Heard& h : collect([&](const std::vector<Heard>& all) {
             seen.clear();
             for (const Heard& h : all) {
                 seen.emplace(h.packet.serialNumber, h.networkId);
             }
             return seen == expected;
         })) {
        EXPECT_EQ(h.packet.opcode, OpCode::DiscoverInform);
    }
    EXPECT_EQ(seen, expected);
}

TEST_F(NetnsDiscoveryTest, RequestsAreAnsweredByUnicastOnTheChannelsOfTheirInterface) {
    startSimulators();
    const struct {
        unsigned networkId;
        std::string serial;
        std::multiset<std::string> answering;
    } cases[] = {
        {0, "", {"ONE0001", "ONE0002", "TWO0001"}},
        {1, "", {"ONE0001", "ONE0002"}},
        {4, "", {"TWO0001"}},
        {2, "ONE0002", {"ONE0002"}},
        {3, "ONE0001", {}},
    };
    std::uint8_t tokenByte = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE("network id " + std::to_string(c.networkId) + ", serial '" + c.serial + "'");
        kalometnd::Token token{};
        token.fill(++tokenByte);
        connection_->send(c.networkId,
                          kalometnd::encode(kalometnd::buildDiscoverRequest(0xFFFFFFFF, c.serial, token)));
        std::multiset<std::string> answers;
        collect([&](const std::vector<Heard>& all) {
            answers.clear();
            for (const Heard& h : all) {
                if (h.packet.opcode == OpCode::DiscoverReply && h.packet.token == token) {
                    answers.insert(h.packet.serialNumber);
                }
            }
            return std::set<std::string>(answers.begin(), answers.end()) ==
                   std::set<std::string>(c.answering.begin(), c.answering.end());
        });
        // Exactly once each: a request over broadcast and multicast is one request.
        EXPECT_EQ(answers, c.answering);
    }
}

}  // namespace
}  // namespace kmiotest
