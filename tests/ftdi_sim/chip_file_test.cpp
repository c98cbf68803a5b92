// The chip file named by FTDISIM_CONFIG, read when the simulator is first
// used. This program names chips.txt beside it before loading the simulator.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "support/ftdi_sim_control.h"

namespace kmiotest {
namespace {

TEST(ChipFile, ChipsOfTheFileArePluggedInAtLoadAndBadLinesSkipped) {
    ASSERT_EQ(::setenv("FTDISIM_CONFIG", KMIO_SOURCE_DIR "/tests/ftdi_sim/chips.txt", 1), 0);
    FtdiSimControl sim;
    const auto& ft = sim.driver();
    std::uint32_t count = 0;
    ASSERT_EQ(ft.FT_CreateDeviceInfoList(&count), 0u);
    std::vector<kmio::d2xx::FT_DEVICE_LIST_INFO_NODE> nodes(count);
    ASSERT_EQ(ft.FT_GetDeviceInfoList(nodes.data(), &count), 0u);
    std::vector<std::string> serials;
    for (const auto& node : nodes) {
        serials.emplace_back(node.SerialNumber);
    }
    EXPECT_EQ(serials, (std::vector<std::string>{"KM000001", "KM000002", "KMHS0001A"}));
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_STREQ(nodes[1].Description, "Kalomet DRV-I");
    EXPECT_EQ(nodes[2].Flags, kmio::d2xx::kFlagHighSpeed);

    // Reset forgets the file's chips and does not read it again.
    ASSERT_TRUE(sim.reset());
    ASSERT_EQ(ft.FT_CreateDeviceInfoList(&count), 0u);
    EXPECT_EQ(count, 0u);
}

}  // namespace
}  // namespace kmiotest
