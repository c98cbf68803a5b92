// The adapter list's netmask rule, quirk included.

#include <gtest/gtest.h>

#include <cstdint>

#include "platform/netmask.h"

namespace kmio {
namespace {

TEST(Netmask, PrefixLengthGivesAllOnesShiftedModuloThirtyTwo) {
    const struct {
        unsigned prefix;
        std::uint32_t mask;
    } cases[] = {
        {0, 0xFFFFFFFF},  // the shift is 32 % 32 = 0: all ones, not 0.0.0.0
        {1, 0x80000000},  {8, 0xFF000000},  {16, 0xFFFF0000}, {23, 0xFFFFFE00},
        {24, 0xFFFFFF00}, {31, 0xFFFFFFFE}, {32, 0xFFFFFFFF}, {33, 0xFFFFFFFF},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(netmaskOfPrefixLength(c.prefix), c.mask) << "prefix " << c.prefix;
    }
}

TEST(Netmask, PrefixLengthOfAContiguousMaskRoundTrips) {
    for (unsigned prefix = 1; prefix <= 32; ++prefix) {
        EXPECT_EQ(prefixLengthOfNetmask(netmaskOfPrefixLength(prefix)), prefix);
    }
    EXPECT_EQ(prefixLengthOfNetmask(0), 0u);
    EXPECT_EQ(prefixLengthOfNetmask(0xFF00FF00), 8u);  // only the leading run counts
}

}  // namespace
}  // namespace kmio
