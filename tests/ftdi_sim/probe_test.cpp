// The protocol-id probe as a chip answers it. The simulator computes its
// checksums bit by bit; the answers are read here with the library's
// table-driven decoder, so each implementation checks the other.

#include <set>
#include <span>
#include <utility>

#include "sim_fixture.h"
#include "usb/probe_frame.h"

namespace kmiotest {
namespace {

using Frames = std::vector<std::pair<int, std::string>>;  // type and body (payload with padding)

std::string frame(std::uint8_t type, const std::string& payload) {
    const auto bytes = kmio::encodeProbeFrame(
        type, std::span(reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size()));
    return std::string(bytes.begin(), bytes.end());
}

const std::string kProbeRequest = frame(0, std::string("xDqP\0\0", 6));

// The frames in `bytes`, in order; type -1 for bytes that do not make a frame.
Frames framesOf(const std::string& bytes) {
    Frames frames;
    std::span rest(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    while (!rest.empty()) {
        const auto length = rest.size() < 3 ? std::nullopt : kmio::frameLengthFromHead(rest.first<3>());
        const auto decoded = length && *length <= rest.size() - 3
                                 ? kmio::decodeProbeFrame(rest.first<3>(), rest.subspan(3, *length))
                                 : std::nullopt;
        if (!decoded) {
            frames.emplace_back(-1, "");
            break;
        }
        frames.emplace_back(decoded->type, std::string(decoded->payload.begin(), decoded->payload.end()));
        rest = rest.subspan(3 + *length);
    }
    return frames;
}

// The probe answer of a chip, collected until the chip has been quiet for a
// read time-out.
std::string probeAnswer(const FtdiSimDriver& ft, const FtdiHandle& chip, std::string request) {
    std::uint32_t written = 0;
    EXPECT_EQ(ft.FT_Write(chip.get(), request.data(), static_cast<std::uint32_t>(request.size()), &written),
              0u);
    EXPECT_EQ(ft.FT_SetTimeouts(chip.get(), 100, 100), 0u);
    std::string answer;
    char buffer[256];
    std::uint32_t got = 0;
    do {
        EXPECT_EQ(ft.FT_Read(chip.get(), buffer, sizeof buffer, &got), 0u);
        answer.append(buffer, got);
    } while (got == sizeof buffer);
    return answer;
}

TEST_F(SimTest, ProbeAnswersInEachMode) {
    const std::string echoed("xDqP\0\0\0\0", 8);  // with the padding
    const struct {
        const char* line;
        Frames frames;
    } cases[] = {
        {"serial=P probe=answer protocols=146,147",
         {{128, echoed}, {133, std::string("\x02\x00\x92\x00\x93\x00\x00\x00", 8)}}},
        {"serial=P", {{128, echoed}, {133, std::string("\x00\x00\x00\x00", 4)}}},
        {"serial=P protocols=180 reply240=32766",
         {{128, echoed},
          {240, std::string("\xFE\x7F\x00\x00", 4)},
          {133, std::string("\x01\x00\xB4\x00", 4)}}},
        {"serial=P probe=bad128 protocols=146", {{128, std::string("PqDx\0\0\0\0", 8)}}},
        {"serial=P probe=silent protocols=146", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        ASSERT_TRUE(sim.reset());
        ASSERT_TRUE(sim.addChip(c.line));
        const FtdiHandle chip = openBySerial("P");
        EXPECT_EQ(framesOf(probeAnswer(ft, chip, kProbeRequest)), c.frames);
        EXPECT_EQ(sim.takeWritten("P"), "") << "a probe request is not data";
    }
}

TEST_F(SimTest, GarbageAnswerHoldsNoFrameStart) {
    ASSERT_TRUE(sim.addChip("serial=G probe=garbage protocols=146"));
    const FtdiHandle chip = openBySerial("G");
    const std::string answer = probeAnswer(ft, chip, kProbeRequest);
    EXPECT_EQ(answer.size(), 64u);
    EXPECT_EQ(answer.find('\xA4'), std::string::npos);
    EXPECT_GT(std::set<char>(answer.begin(), answer.end()).size(), 32u) << "looks random";
}

TEST_F(SimTest, OnlyAnExactValidRequestIsAProbe) {
    std::string badChecksum = kProbeRequest;
    badChecksum.back() ^= 1;
    const std::string cases[] = {badChecksum, frame(1, std::string("xDqP\0\0", 6)),
                                 frame(0, std::string("xDqP\0\1", 6)), kProbeRequest + "x",
                                 kProbeRequest.substr(0, 15)};
    ASSERT_TRUE(sim.addChip("serial=Q protocols=146"));
    const FtdiHandle chip = openBySerial("Q");
    for (const auto& request : cases) {
        EXPECT_EQ(probeAnswer(ft, chip, request), request) << "echoed as data";
    }
}

}  // namespace
}  // namespace kmiotest
