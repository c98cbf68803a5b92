#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/ftdi_sim_control.h"
#include "usb/ftdi_handle.h"

namespace kmiotest {

using kmio::FtdiHandle;
using kmio::d2xx::FT_DEVICE_LIST_INFO_NODE;
using kmio::d2xx::FT_HANDLE;
using kmio::d2xx::FT_STATUS;

// Every simulator test starts with no chips and ends with no handle open.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.reset()); }
    void TearDown() override {
        EXPECT_EQ(sim.openHandles(), 0u);
        sim.reset();
    }

    std::vector<FT_DEVICE_LIST_INFO_NODE> list() const {
        std::uint32_t count = 0;
        EXPECT_EQ(ft.FT_CreateDeviceInfoList(&count), 0u);
        std::vector<FT_DEVICE_LIST_INFO_NODE> nodes(count);
        if (count > 0) {
            EXPECT_EQ(ft.FT_GetDeviceInfoList(nodes.data(), &count), 0u);
            EXPECT_EQ(count, nodes.size());
        }
        return nodes;
    }

    // Opens a chip by serial number; a test failure and a null handle when the driver refuses.
    FT_HANDLE openRaw(std::string serial) const {
        FT_HANDLE handle = nullptr;
        EXPECT_EQ(ft.FT_OpenEx(serial.data(), kmio::d2xx::kOpenBySerialNumber, &handle), 0u) << serial;
        return handle;
    }
    FtdiHandle openBySerial(const std::string& serial) const { return FtdiHandle(ft, openRaw(serial)); }

    // Reads what is queued now (FT_GetStatus, then FT_Read of that count).
    std::string readQueued(const FtdiHandle& chip) const {
        std::uint32_t queued = 0, tx = 0, events = 0;
        EXPECT_EQ(ft.FT_GetStatus(chip.get(), &queued, &tx, &events), 0u);
        std::string bytes(queued, '\0');
        std::uint32_t got = 0;
        EXPECT_EQ(ft.FT_Read(chip.get(), bytes.data(), queued, &got), 0u);
        bytes.resize(got);
        return bytes;
    }

    FT_STATUS write(const FtdiHandle& chip, std::string bytes) const {
        std::uint32_t written = 0;
        const FT_STATUS status =
            ft.FT_Write(chip.get(), bytes.data(), static_cast<std::uint32_t>(bytes.size()), &written);
        if (status == 0) {
            EXPECT_EQ(written, bytes.size());
        }
        return status;
    }

    FtdiSimControl sim;
    const FtdiSimDriver& ft = sim.driver();
};

}  // namespace kmiotest
