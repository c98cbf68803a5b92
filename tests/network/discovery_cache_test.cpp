// The discovery cache from inside: how often it asks the network, and what a
// failed setting leaves behind.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "network/network_discovery.h"
#include "network/network_enumeration.h"
#include "discovery/discovery_log.h"
#include "kmio/kmio.h"
#include "network/api_support.h"

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

TEST(DiscoveryCache, RediscoversOnlyAfterThreeSecondsOrWhenForced) {
    const auto sim = kmiotest::startSimulator(1, 56420);
    RequestCounter requests;
    NetworkEnumerationOptions options;
    options.iface = {"network:127.0.0.1"};
    options.findDeviceSn = {"NE0001"};
    const auto devicesFound = [&] {
        RecordList records;
        EXPECT_EQ(enumerateNetworkDevices(options, records), KM_IO_OK);
        return records.size();
    };
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 1);
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 1) << "a fresh entry was discovered again";
    options.forceRescan = true;
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 2);
    options.forceRescan = false;
    std::this_thread::sleep_for(3100ms);
    EXPECT_EQ(devicesFound(), 1u);
    EXPECT_EQ(requests.count(), 3) << "a stale entry was not discovered again";
}

TEST(DiscoveryCache, FailedChannelLeavesSettingsAsTheyWere) {
    NetworkDiscovery cache;
    EXPECT_EQ(cache.discover({}, 10, false, ""), KM_IO_ERR_BAD_OPTIONS);
    ASSERT_EQ(cache.apply({LocatorFormat::BySerialNumber, std::set<Ipv4>{kLoopback}}), KM_IO_OK);
    EXPECT_EQ(cache.channelAddresses(), std::set<Ipv4>{kLoopback});
    // 203.0.113.1 is no address of this machine: its channel cannot bind.
    const Ipv4 foreign = 0xCB007101;
    EXPECT_EQ(cache.apply({LocatorFormat::ByHost, std::set<Ipv4>{foreign}}), KM_IO_ERR_BAD_OPTIONS);
    EXPECT_EQ(cache.channelAddresses(), std::set<Ipv4>{kLoopback});
    EXPECT_EQ(cache.discover({foreign}, 10, false, ""), KM_IO_ERR_BAD_OPTIONS);
    EXPECT_EQ(cache.channelAddresses(), std::set<Ipv4>{kLoopback});
    EXPECT_EQ(cache.apply({std::nullopt, std::set<Ipv4>{}}), KM_IO_OK);
    EXPECT_TRUE(cache.channelAddresses().empty());
}

}  // namespace
}  // namespace kmio
