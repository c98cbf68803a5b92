// An address with prefix length 0 in the interface list, in a namespace of
// the test's own.

#include <algorithm>

#include "discovery/adapters.h"
#include "netns/netns_fixture.h"

namespace kmiotest {
namespace {

TEST_F(NetnsTest, AddressWithPrefixLengthZeroListsNetmaskAllOnes) {
    const RunResult added = run({"ip", "-n", host_, "addr", "add", "10.78.0.1/0", "dev", hostInterface(0)});
    ASSERT_EQ(added.status, 0) << added.out << added.err;
    std::vector<kalometnd::AdapterInfo> adapters;
    {
        const ScopedNetns inside(host_);
        adapters = kalometnd::listAdapters();
    }
    const auto find = [&](std::uint32_t address) {
        return std::find_if(adapters.begin(), adapters.end(),
                            [&](const kalometnd::AdapterInfo& a) { return a.address == address; });
    };
    const auto zero = find(0x0A4E0001);
    ASSERT_NE(zero, adapters.end());
    EXPECT_EQ(zero->netmask, 0xFFFFFFFFu);
    const auto ordinary = find(hostAddress(0));
    ASSERT_NE(ordinary, adapters.end());
    EXPECT_EQ(ordinary->netmask, 0xFFFFFF00u);
}

}  // namespace
}  // namespace kmiotest
