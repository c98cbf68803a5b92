// The discovery cache from inside: how often it asks the network, and what a
// failed setting leaves behind.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>

#include "discovery/discovery_log.h"
#include "kmio/kmio.h"
#include "network/api_support.h"
#include "network/network_discovery.h"
#include "network/network_enumeration.h"
#include "support/manual_clock.h"

namespace kmio {
namespace {

using namespace std::chrono_literals;

constexpr Ipv4 kLoopback = 0x7F000001;

// Counts the Discover Requests this process sends.
class RequestCounter {
public:
    RequestCounter() {
        kalometnd::setLogMask(kalometnd::kLogPackets);
        kalometnd::setLogSink([this](unsigned, const std::string& line) {
            if (line.starts_with("Host sending packet") &&
                line.find("Discover Request") != std::string::npos) {
                ++count_;
            }
        });
    }
    ~RequestCounter() { kalometnd::setLogSink({}); }
    int count() const { return count_; }

private:
    std::atomic<int> count_{0};
};

// Puts settings in force in the two steps KM_IO_SetGlobalOptions takes,
// without a device table; false when a channel could not be set up.
bool applied(NetworkDiscovery& cache, const NetworkDiscovery::Settings& settings) {
    NetworkDiscovery::Prepared prepared;
    try {
        cache.prepare(settings, prepared);
    } catch (const std::exception&) {
        return false;
    }
    cache.commit(prepared);
    return true;
}

TEST(DiscoveryCache, APassStaysFreshForThreeSecondsUnlessForced) {
    const auto sim = kmiotest::startSimulator(1, 56420);
    RequestCounter requests;
    kmiotest::ManualClock clock;
    NetworkDiscovery cache(kalometnd::createConnection, clock.clock());
    NetworkEnumerationOptions options;
    options.iface = {"network:127.0.0.1"};
    options.findDeviceSn = {"NE0001"};
    const auto devicesFound = [&] {
        RecordList records;
        enumerateNetworkDevices(cache, options, records);
        return records.size();
    };
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 1);
    clock.advance(2999ms);
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 1) << "a fresh entry was discovered again";
    options.forceRescan = true;
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 2) << "a forced run was served from the cache";
    options.forceRescan = false;
    // The forced pass started the three seconds again.
    clock.advance(2999ms);
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 2) << "a fresh entry was discovered again";
    clock.advance(2ms);
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 3) << "a stale entry was not discovered again";
}

// The interfaces among candidates on which the cache has a channel.
std::set<Ipv4> channelsAmong(NetworkDiscovery& cache, const std::set<Ipv4>& candidates) {
    std::set<Ipv4> found;
    for (const auto& [address, devices] : cache.filterListsOn(candidates)) {
        found.insert(address);
    }
    return found;
}

TEST(DiscoveryCache, FailedChannelLeavesSettingsAsTheyWere) {
    NetworkDiscovery cache;
    EXPECT_FALSE(cache.discover({}, 10, false, ""));
    ASSERT_TRUE(applied(cache, {LocatorFormat::BySerialNumber, std::set<Ipv4>{kLoopback}}));
    // 203.0.113.1 is no address of this machine: its channel cannot bind.
    const Ipv4 foreign = 0xCB007101;
    const std::set<Ipv4> both{kLoopback, foreign};
    EXPECT_EQ(channelsAmong(cache, both), std::set<Ipv4>{kLoopback});
    EXPECT_FALSE(applied(cache, {LocatorFormat::ByHost, std::set<Ipv4>{foreign}}));
    EXPECT_EQ(channelsAmong(cache, both), std::set<Ipv4>{kLoopback});
    EXPECT_FALSE(cache.discover({foreign}, 10, false, ""));
    EXPECT_EQ(channelsAmong(cache, both), std::set<Ipv4>{kLoopback});
    EXPECT_TRUE(applied(cache, {std::nullopt, std::set<Ipv4>{}}));
    EXPECT_TRUE(channelsAmong(cache, both).empty());
}

}  // namespace
}  // namespace kmio
