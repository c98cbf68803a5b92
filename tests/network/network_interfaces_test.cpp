#include <gtest/gtest.h>

#include "discovery/adapters.h"
#include "discovery/exceptions.h"
#include "kmio/kmio.h"
#include "network/network_interface_enumeration.h"

namespace kmio {
namespace {

using Adapters = std::vector<kalometnd::AdapterInfo>;
using Items = std::vector<std::pair<std::string, std::string>>;

TEST(NetworkInterfaces, OneRecordPerAdapterWithKeysInOrder) {
    RecordList records;
    const auto source = [] {
        return Adapters{{"eth0", 0x0A000005, 0xFFFFFF00, "Lab network"},
                        {"eth1", 0xC0A80114, 0xFFFF0000, "eth1"}};
    };
    ASSERT_EQ(enumerateNetworkInterfaces(records, source), KM_IO_OK);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].items(), (Items{{"iface-type", "network"},
                                         {"network-host", "10.0.0.5"},
                                         {"network-subnet-mask", "255.255.255.0"},
                                         {"name", "Lab network"}}));
    EXPECT_EQ(*records[1].find("network-host"), "192.168.1.20");
}

TEST(NetworkInterfaces, AnEmptyAdapterListGivesNoRecordsAndAnUnreadableOneThrows) {
    RecordList records;
    EXPECT_EQ(enumerateNetworkInterfaces(records, [] { return Adapters{}; }), KM_IO_OK);
    EXPECT_TRUE(records.empty());
    const auto failing = []() -> Adapters {
        throw kalometnd::NetworkException("Could not get interface list: Out of memory");
    };
    EXPECT_THROW(enumerateNetworkInterfaces(records, failing), kalometnd::NetworkException);
    EXPECT_TRUE(records.empty());
}

}  // namespace
}  // namespace kmio
