#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "support/ftdi_sim_control.h"

namespace kmiotest {

using kmio::d2xx::FT_DEVICE_LIST_INFO_NODE;
using kmio::d2xx::FT_HANDLE;
using kmio::d2xx::FT_STATUS;

// A handle of the simulated driver, closed when it goes out of scope.
class ChipHandle {
public:
    ChipHandle(const FtdiSimDriver& driver, FT_HANDLE handle) : driver_(driver), handle_(handle) {}
    ~ChipHandle() {
        if (handle_ != nullptr) {
            driver_.FT_Close(handle_);
        }
    }
    ChipHandle(const ChipHandle&) = delete;
    ChipHandle& operator=(const ChipHandle&) = delete;
    FT_HANDLE get() const { return handle_; }
    // Closes now, through the driver; the status of FT_Close.
    FT_STATUS close() {
        const FT_STATUS status = driver_.FT_Close(handle_);
        handle_ = nullptr;
        return status;
    }

private:
    const FtdiSimDriver& driver_;
    FT_HANDLE handle_;
};

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
    FT_HANDLE openBySerial(const std::string& serial) const {
        FT_HANDLE handle = nullptr;
        EXPECT_EQ(ft.FT_OpenEx(const_cast<char*>(serial.c_str()), kmio::d2xx::kOpenBySerialNumber, &handle),
                  0u);
        return handle;
    }

    // Reads what is queued now (FT_GetStatus, then FT_Read of that count).
    std::string readQueued(FT_HANDLE handle) const {
        std::uint32_t queued = 0, tx = 0, events = 0;
        EXPECT_EQ(ft.FT_GetStatus(handle, &queued, &tx, &events), 0u);
        std::string bytes(queued, '\0');
        std::uint32_t got = 0;
        EXPECT_EQ(ft.FT_Read(handle, bytes.data(), queued, &got), 0u);
        bytes.resize(got);
        return bytes;
    }

    FT_STATUS write(FT_HANDLE handle, std::string bytes) const {
        std::uint32_t written = 0;
        const FT_STATUS status =
            ft.FT_Write(handle, bytes.data(), static_cast<std::uint32_t>(bytes.size()), &written);
        if (status == 0) {
            EXPECT_EQ(written, bytes.size());
        }
        return status;
    }

    FtdiSimControl sim;
    const FtdiSimDriver& ft = sim.driver();
};

// The tests' own reading of probe frames, independent of the simulator's:
// a CRC-32 from a table, and a reader that checks start byte, length and
// checksum.
inline std::uint32_t testCrc32(const std::string& bytes) {
    static const auto table = [] {
        std::array<std::uint32_t, 256> t{};
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k) {
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            t[n] = c;
        }
        return t;
    }();
    std::uint32_t crc = 0xFFFFFFFF;
    for (unsigned char b : bytes) {
        crc = table[(crc ^ b) & 0xFF] ^ (crc >> 8);
    }
    return crc ^ 0xFFFFFFFF;
}

inline std::string le16(std::uint16_t v) {
    return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)};
}

inline std::string testFrame(std::uint8_t type, const std::string& payload) {
    const std::size_t padding = (4 - payload.size() % 4) % 4;
    std::string frame = "\xA4" + le16(static_cast<std::uint16_t>(payload.size() + padding + 5)) +
                        static_cast<char>(type) + payload + std::string(padding, '\0');
    const std::uint32_t crc = testCrc32(frame);
    return frame + le16(static_cast<std::uint16_t>(crc)) + le16(static_cast<std::uint16_t>(crc >> 16));
}

inline const std::string kProbeRequest = testFrame(0, std::string("xDqP\0\0", 6));

struct TestFrame {
    int type;
    std::string body;  // payload and padding
};

// The frames in `bytes`, in order; {-1, reason} for the first bad one.
inline std::vector<TestFrame> readFrames(const std::string& bytes) {
    std::vector<TestFrame> frames;
    const auto bad = [&frames](const char* why) {
        frames.push_back({-1, why});
        return frames;
    };
    std::size_t at = 0;
    while (at < bytes.size()) {
        if (bytes.size() - at < 4 || static_cast<unsigned char>(bytes[at]) != 0xA4) {
            return bad("no frame start");
        }
        const std::size_t length = static_cast<unsigned char>(bytes[at + 1]) |
                                   static_cast<std::size_t>(static_cast<unsigned char>(bytes[at + 2])) << 8;
        if (length < 5 || at + 3 + length > bytes.size() || (length - 5) % 4 != 0) {
            return bad("bad length");
        }
        const std::string head = bytes.substr(at, 3 + length - 4);
        const std::string crc = bytes.substr(at + 3 + length - 4, 4);
        const std::uint32_t expected = testCrc32(head);
        if (crc !=
            le16(static_cast<std::uint16_t>(expected)) + le16(static_cast<std::uint16_t>(expected >> 16))) {
            return bad("bad checksum");
        }
        frames.push_back({static_cast<unsigned char>(bytes[at + 3]), head.substr(4)});
        at += 3 + length;
    }
    return frames;
}

}  // namespace kmiotest
