// The protocol-id probe as a chip answers it, read with the tests' own frame
// reader.

#include <set>

#include "sim_fixture.h"

namespace kmiotest {
namespace {

using namespace kmio::d2xx;

TEST(ProbeFrameReader, Crc32OfTheCheckString) {
    EXPECT_EQ(testCrc32("123456789"), 0xCBF43926u);
}

TEST(ProbeFrameReader, RequestFrameLayout) {
    // start, length 13 (type + 6 payload + 2 padding + 4 checksum), type 0, payload, padding, checksum
    ASSERT_EQ(kProbeRequest.size(), 16u);
    EXPECT_EQ(kProbeRequest.substr(0, 12), std::string("\xA4\x0D\x00\x00xDqP\x00\x00\x00\x00", 12));
    const auto frames = readFrames(kProbeRequest);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].type, 0);
}

// The probe answer of a chip, collected until the chip has been quiet for a
// read time-out.
std::string probeAnswer(const FtdiSimDriver& ft, FT_HANDLE chip, const std::string& request) {
    std::uint32_t written = 0;
    EXPECT_EQ(ft.FT_Write(chip, const_cast<char*>(request.data()), static_cast<std::uint32_t>(request.size()),
                          &written),
              0u);
    EXPECT_EQ(ft.FT_SetTimeouts(chip, 100, 100), 0u);
    std::string answer;
    char buffer[256];
    std::uint32_t got = 0;
    do {
        EXPECT_EQ(ft.FT_Read(chip, buffer, sizeof buffer, &got), 0u);
        answer.append(buffer, got);
    } while (got == sizeof buffer);
    return answer;
}

TEST_F(SimTest, ProbeAnswersInEachMode) {
    const std::string echoPayload("xDqP\0\0\0\0", 8);  // with the padding
    const struct {
        const char* line;
        std::vector<int> types;
        std::vector<std::string> bodies;
    } cases[] = {
        {"serial=P probe=answer protocols=146,147",
         {128, 133},
         {echoPayload, std::string("\x02\x00\x92\x00\x93\x00\x00\x00", 8)}},
        {"serial=P", {128, 133}, {echoPayload, std::string("\x00\x00\x00\x00", 4)}},
        {"serial=P protocols=180 reply240=32766",
         {128, 240, 133},
         {echoPayload, std::string("\xFE\x7F\x00\x00", 4), std::string("\x01\x00\xB4\x00", 4)}},
        {"serial=P probe=bad128 protocols=146", {128}, {std::string("PqDx\0\0\0\0", 8)}},
        {"serial=P probe=silent protocols=146", {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        ASSERT_TRUE(sim.reset());
        ASSERT_TRUE(sim.addChip(c.line));
        ChipHandle chip(ft, openBySerial("P"));
        const auto frames = readFrames(probeAnswer(ft, chip.get(), kProbeRequest));
        ASSERT_EQ(frames.size(), c.types.size());
        for (std::size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(frames[i].type, c.types[i]) << frames[i].body;
            EXPECT_EQ(frames[i].body, c.bodies[i]);
        }
        EXPECT_EQ(sim.takeWritten("P"), "") << "a probe request is not data";
    }
}

TEST_F(SimTest, GarbageAnswerHoldsNoFrameStart) {
    ASSERT_TRUE(sim.addChip("serial=G probe=garbage protocols=146"));
    ChipHandle chip(ft, openBySerial("G"));
    const std::string answer = probeAnswer(ft, chip.get(), kProbeRequest);
    EXPECT_EQ(answer.size(), 64u);
    EXPECT_EQ(answer.find('\xA4'), std::string::npos);
    EXPECT_GT(std::set<char>(answer.begin(), answer.end()).size(), 32u) << "looks random";
}

TEST_F(SimTest, OnlyAnExactValidRequestIsAProbe) {
    std::string badChecksum = kProbeRequest;
    badChecksum.back() ^= 1;
    std::string otherType = testFrame(1, std::string("xDqP\0\0", 6));
    std::string otherPayload = testFrame(0, std::string("xDqP\0\1", 6));
    const std::string cases[] = {badChecksum, otherType, otherPayload, kProbeRequest + "x",
                                 kProbeRequest.substr(0, 15)};
    ASSERT_TRUE(sim.addChip("serial=Q protocols=146"));
    ChipHandle chip(ft, openBySerial("Q"));
    for (const auto& request : cases) {
        EXPECT_EQ(probeAnswer(ft, chip.get(), request), request) << "echoed as data";
    }
}

}  // namespace
}  // namespace kmiotest
