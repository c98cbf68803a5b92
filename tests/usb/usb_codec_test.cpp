// The USB link's pure computations: chip id from EEPROM words, CRC-32 and
// probe frames, link profiles, and how a dual-channel chip is named.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "usb/chip_id.h"
#include "usb/link_profile.h"
#include "usb/probe_frame.h"
#include "usb/usb_device_entry.h"

namespace kmio {
namespace {

// Expected ids worked out by hand from the derivation steps:
//  1. a' = swap16(word 0x43), b' = swap16(word 0x44), v = a' << 16 | b'
//  2. every byte of v permuted: bit 0->1, 1->6, 2->0, 3->7, 4->3, 5->4, 6->2, 7->5
//  3. XOR 0xA5F0F7D1
//
// (0x0000, 0x0000): v = 0, permuted 0, id = 0xA5F0F7D1.
// (0x0100, 0x0000): a' = 0x0001, v = 0x00010000; byte 0x01 has bit 0 set,
//   which goes to bit 1: 0x02, so permuted 0x00020000, id = 0xA5F2F7D1.
// (0x1234, 0xABCD): a' = 0x3412, b' = 0xCDAB, v = 0x3412CDAB.
//   0x34 = bits 2,4,5 -> 0,3,4 = 0x19     0x12 = bits 1,4 -> 6,3 = 0x48
//   0xCD = bits 0,2,3,6,7 -> 1,0,7,2,5 = 0xA7
//   0xAB = bits 0,1,3,5,7 -> 1,6,7,4,5 = 0xF2
//   permuted 0x1948A7F2; XOR 0xA5F0F7D1 = 0xBCB85023.
// (0x8000, 0x0080): a' = 0x0080, b' = 0x8000, v = 0x00808000; both 0x80
//   bytes have bit 7, which goes to bit 5: 0x20, so permuted 0x00202000,
//   id = 0xA5D0D7D1.
TEST(ChipIdTest, DerivedFromEepromWordsAsComputedByHand) {
    struct Case {
        std::uint16_t word43;
        std::uint16_t word44;
        std::uint32_t id;
    };
    for (const Case& c : {Case{0x0000, 0x0000, 0xA5F0F7D1}, Case{0x0100, 0x0000, 0xA5F2F7D1},
                          Case{0x1234, 0xABCD, 0xBCB85023}, Case{0x8000, 0x0080, 0xA5D0D7D1}}) {
        EXPECT_EQ(chipIdFromEepromWords(c.word43, c.word44), c.id) << std::hex << c.word43 << " " << c.word44;
    }
}

std::vector<std::uint8_t> bytesOf(const std::string& text) {
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

// Bit by bit, as the polynomial defines it: the reference for the table code.
std::uint32_t referenceCrc32(const std::vector<std::uint8_t>& bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1U) != 0 ? (crc >> 1) ^ 0xEDB88320 : crc >> 1;
        }
    }
    return ~crc;
}

TEST(ProbeFrameTest, Crc32MatchesTheStandardAndTheBitwiseDefinition) {
    EXPECT_EQ(crc32(bytesOf("123456789")), 0xCBF43926u);
    EXPECT_EQ(crc32({}), 0u);
    // Every length around the four-byte steps, so the tail handling is covered.
    std::vector<std::uint8_t> data;
    for (int length = 0; length < 40; ++length) {
        EXPECT_EQ(crc32(data), referenceCrc32(data)) << length;
        data.push_back(static_cast<std::uint8_t>(length * 37 + 11));
    }
}

TEST(ProbeFrameTest, EncodesTheQueryWithPaddingAndChecksum) {
    const std::vector<std::uint8_t> frame = encodeProbeFrame(0, bytesOf(std::string("xDqP\0\0", 6)));
    // 6 payload bytes need 2 of padding: L = 6 + 2 + 5 = 13, 16 bytes in all.
    ASSERT_EQ(frame.size(), 16u);
    EXPECT_EQ(frame[0], 0xA4);
    EXPECT_EQ(frame[1], 13);
    EXPECT_EQ(frame[2], 0);
    EXPECT_EQ(frame[3], 0);
    EXPECT_EQ(std::string(frame.begin() + 4, frame.begin() + 10), std::string("xDqP\0\0", 6));
    EXPECT_EQ(frame[10], 0);
    EXPECT_EQ(frame[11], 0);
    const std::uint32_t crc = referenceCrc32(std::vector<std::uint8_t>(frame.begin(), frame.begin() + 12));
    EXPECT_EQ(frame[12] | frame[13] << 8 | frame[14] << 16 | static_cast<std::uint32_t>(frame[15]) << 24,
              crc);
}

TEST(ProbeFrameTest, DecodesGoodFramesAndRejectsBadOnes) {
    for (std::size_t payloadSize : {0u, 1u, 2u, 3u, 4u, 5u, 9u}) {
        std::vector<std::uint8_t> payload(payloadSize, 0x5A);
        const std::vector<std::uint8_t> frame = encodeProbeFrame(133, payload);
        const std::span<const std::uint8_t, 3> head(frame.data(), 3);
        const std::optional<std::size_t> length = frameLengthFromHead(head);
        ASSERT_TRUE(length) << payloadSize;
        ASSERT_EQ(*length, frame.size() - 3);
        const auto decoded = decodeProbeFrame(head, std::span(frame).subspan(3));
        ASSERT_TRUE(decoded) << payloadSize;
        EXPECT_EQ(decoded->type, 133);
        // The padding cannot be told from the payload: both come back.
        EXPECT_EQ(decoded->payload.size(), payloadSize + (4 - payloadSize % 4) % 4);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), decoded->payload.begin()));

        std::vector<std::uint8_t> corrupted = frame;
        corrupted[4 % corrupted.size()] ^= 0x01;
        EXPECT_FALSE(decodeProbeFrame(std::span<const std::uint8_t, 3>(corrupted.data(), 3),
                                      std::span(corrupted).subspan(3)))
            << payloadSize;
    }
    const std::uint8_t notAStart[3] = {0xA5, 9, 0};
    const std::uint8_t tooShort[3] = {0xA4, 4, 0};
    const std::uint8_t misaligned[3] = {0xA4, 7, 0};
    EXPECT_FALSE(frameLengthFromHead(notAStart));
    EXPECT_FALSE(frameLengthFromHead(tooShort));
    EXPECT_FALSE(frameLengthFromHead(misaligned));
}

TEST(LinkProfileTest, FromTheUserAreaTheTypeAndTheDescription) {
    struct Case {
        std::string userArea;
        std::string description;
        std::uint32_t type;
        bool highSpeed;
        std::optional<LinkProfile> expected;
    };
    const LinkProfile profile1{500000, 0, false};
    const LinkProfile profile10{12000000, 256, false};
    const LinkProfile fifo{0, 256, true};
    const LinkProfile profile12{3000000, 0, false};
    const std::vector<Case> cases{
        {std::string("KMIO\x01", 5), "Other", 5, false, profile1},
        {std::string("KMIO\x0a", 5), "Other", 5, false, profile10},
        {std::string("KMIO\x0b", 5), "Other", 5, false, fifo},
        {std::string("KMIO\x0c", 5), "Other", 5, false, profile12},
        {std::string("KMIO\x0c trailing", 14), "Other", 5, false, profile12},
        {std::string("KMIO\xff", 5), "Kalomet DRV-I", 5, false, std::nullopt},
        {std::string("KMIO\x02", 5), "Kalomet DRV-I", 5, false, std::nullopt},  // unknown numbers are 255
        {std::string("KMIO\x00", 5), "Kalomet DRV2", 5, false, profile10},
        {"KMIO", "Kalomet DRV-I", 5, false, profile1},  // too short to carry a number: untagged
        {"kmio\x01", "Kalomet HUB-3X", 5, false, profile1},
        {"", "Kalomet DRV2", 5, false, profile10},
        {"", "Kalomet Detect", 6, true, fifo},
        {"", "Kalomet Detect", 6, false, std::nullopt},
        {"", "Kalomet Detect", 5, true, std::nullopt},
        {"", "Kalomet DRV-I ", 5, false, std::nullopt},  // byte for byte
    };
    for (const Case& c : cases) {
        const std::vector<std::uint8_t> area(c.userArea.begin(), c.userArea.end());
        const std::optional<LinkProfile> got = deriveLinkProfile(area, c.description, c.type, c.highSpeed);
        ASSERT_EQ(got.has_value(), c.expected.has_value()) << c.description << " " << c.userArea.size();
        if (got) {
            EXPECT_EQ(got->baudRate, c.expected->baudRate) << c.description;
            EXPECT_EQ(got->flowControl, c.expected->flowControl) << c.description;
            EXPECT_EQ(got->synchronousFifo, c.expected->synchronousFifo) << c.description;
        }
    }
}

TEST(UsbDeviceEntryTest, DualChannelChipsAreKnownByChannelA) {
    struct Case {
        std::uint32_t flags;
        std::uint32_t type;
        std::string description;
        std::string serial;
        std::optional<std::string> knownAs;
        std::string serialKnownAs;
    };
    const std::vector<Case> cases{
        {2, 6, "Kalomet Detect A", "KM42A", "Kalomet Detect", "KM42"},
        {2, 6, "Kalomet Detect B", "KM42B", std::nullopt, "KM42"},
        {2, 6, "X A B", "S1", "X A", "S"},  // " A" found further back; still only two characters cut
        {2, 6, "A", "S1", std::nullopt, "S"},
        {0, 6, "Kalomet Detect A", "KM42A", "Kalomet Detect A", "KM42A"},  // not high-speed
        {2, 5, "Kalomet Detect A", "KM42A", "Kalomet Detect A", "KM42A"},  // not type 6
    };
    for (const Case& c : cases) {
        UsbDeviceEntry entry;
        entry.flags = c.flags;
        entry.type = c.type;
        entry.description = c.description;
        entry.serialNumber = c.serial;
        EXPECT_EQ(entry.deviceDescription(), c.knownAs) << c.description;
        EXPECT_EQ(entry.deviceSerialNumber(), c.serialKnownAs) << c.description;
    }
}

}  // namespace
}  // namespace kmio
