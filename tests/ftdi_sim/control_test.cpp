// The control interface: chip lines, injected failures and the call log.

#include "sim_fixture.h"

namespace kmiotest {
namespace {

using namespace kmio::d2xx;

TEST_F(SimTest, ChipLinesSetWhatTheListShows) {
    const std::string longest = "serial=" + std::string(15, 's') + " description=" + std::string(63, 'd');
    const struct {
        std::string line;
        std::string serial;
        std::string description;
        std::uint32_t type, flags, id, location;
    } cases[] = {
        {"serial=A", "A", "FT232R USB UART", 5, 0, 0x04036001, 1},
        {"serial=KM0000000000001 type=6 highspeed=1", "KM0000000000001", "FT232R USB UART", 6, 2, 0x04036001,
         2},
        {"  serial=\"\"   description=\"two  blanks\"  # a comment", "", "two  blanks", 5, 0, 0x04036001, 3},
        {"description=x serial=B vid=0xFFFF pid=0 location=4294967295", "B", "x", 5, 0, 0xFFFF0000,
         4294967295},
        {"serial=C\tdescription=\"a \\\"quoted\\\" word\" type=0x10", "C", "a \\\"quoted\\\" word", 16, 0,
         0x04036001, 5},
        {"serial=D highspeed=0 echo=0 probe=silent chipid=7 ee43=1 ee44=2", "D", "FT232R USB UART", 5, 0,
         0x04036001, 6},
        {"serial=E vid=0x1234 pid=42", "E", "FT232R USB UART", 5, 0, 0x1234002A, 7},
        {longest, std::string(15, 's'), std::string(63, 'd'), 5, 0, 0x04036001, 8},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(sim.addChip(c.line)) << c.line;
    }
    const auto nodes = list();
    ASSERT_EQ(nodes.size(), std::size(cases));
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        SCOPED_TRACE(cases[i].line);
        EXPECT_EQ(nodes[i].SerialNumber, cases[i].serial);
        EXPECT_EQ(nodes[i].Description, cases[i].description);
        EXPECT_EQ(nodes[i].Type, cases[i].type);
        EXPECT_EQ(nodes[i].Flags, cases[i].flags);
        EXPECT_EQ(nodes[i].ID, cases[i].id);
        EXPECT_EQ(nodes[i].LocId, cases[i].location);
        EXPECT_EQ(nodes[i].ftHandle, nullptr);
    }
}

TEST_F(SimTest, UserAreaEscapes) {
    const struct {
        const char* value;
        std::string bytes;
    } cases[] = {
        {"plain", "plain"},
        {R"(KMIO\x0a)", "KMIO\n"},
        {R"("a b\tc\\d\"e")", "a b\tc\\d\"e"},
        {R"(\0\101\x4A\xff)", std::string("\0AJ\xff", 4)},
        {R"(\n\r\a\b\f\v\'\?)", "\n\r\a\b\f\v'?"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        ASSERT_TRUE(sim.reset());
        ASSERT_TRUE(sim.addChip(std::string("serial=U ua=") + c.value));
        const FtdiHandle chip = openBySerial("U");
        std::uint8_t area[64] = {};
        std::uint32_t got = 0;
        ASSERT_EQ(ft.FT_EE_UARead(chip.get(), area, sizeof area, &got), 0u);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(area), got), c.bytes);
    }
}

TEST_F(SimTest, BadChipLinesAreRefused) {
    const char* cases[] = {
        "",
        "# only a comment",
        "description=\"no serial\"",
        "serial",
        "serial=A bogus=1",
        "serial=A serial=B",
        "serial=\"unterminated",
        "serial=\"A\"B",
        "serial=0123456789abcdef",
        "serial=A type=x",
        "serial=A type=-1",
        "serial=A type=4294967296",
        "serial=A vid=0x10000",
        "serial=A pid=",
        "serial=A vid=0x",
        "serial=A highspeed=2",
        "serial=A echo=yes",
        "serial=A probe=loud",
        "serial=A protocols=146,",
        "serial=A protocols=,146",
        "serial=A protocols=146;147",
        "serial=A protocols=65536",
        "serial=A reply240=70000",
        "serial=A ee43=0x10000",
        "serial=A chipid=99999999999",
        "serial=A ua=\\q",
        "serial=A ua=\\x",
        "serial=A ua=trailing\\",
        "serial=A ua=\\777",
        "serial=A =1",
    };
    for (const char* line : cases) {
        EXPECT_FALSE(sim.addChip(line)) << line;
    }
    const std::string longDescription(64, 'd');
    EXPECT_FALSE(sim.addChip("serial=A description=" + longDescription));
    EXPECT_TRUE(list().empty());

    ASSERT_TRUE(sim.addChip("serial=A"));
    EXPECT_FALSE(sim.addChip("serial=A")) << "two plugged chips of one serial number";
    // Control calls name only known chips and entry points.
    EXPECT_FALSE(sim.unplug("NOPE"));
    EXPECT_FALSE(sim.feed("NOPE", "x"));
    EXPECT_FALSE(sim.signalEvent("NOPE"));
    EXPECT_FALSE(sim.stream("NOPE", 10));
    EXPECT_FALSE(sim.setEcho("NOPE", true));
    EXPECT_FALSE(sim.clearCallLog("NOPE"));
    EXPECT_EQ(sim.callLog("NOPE"), "");
    EXPECT_EQ(sim.takeWritten("NOPE"), "");
    EXPECT_FALSE(sim.fail("FT_Bogus", 1, 1));
    EXPECT_FALSE(sim.fail("FT_Read", 1, -2));
}

// A failure counts down, or lasts until cleared, and the failed call does nothing.
TEST_F(SimTest, InjectedFailuresCountDownAndDoNotAct) {
    ASSERT_TRUE(sim.addChip("serial=F1"));
    FT_HANDLE chip = openRaw("F1");
    ASSERT_TRUE(sim.fail("FT_SetBaudRate", kOtherError, 2));
    EXPECT_EQ(ft.FT_SetBaudRate(chip, 9600), kOtherError);
    EXPECT_EQ(ft.FT_SetBaudRate(chip, 9600), kOtherError);
    EXPECT_EQ(ft.FT_SetBaudRate(chip, 9600), 0u);

    ASSERT_TRUE(sim.fail("FT_CreateDeviceInfoList", kIoError, -1));
    std::uint32_t count = 0;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ft.FT_CreateDeviceInfoList(&count), kIoError);
    }
    ASSERT_TRUE(sim.clearFailure("FT_CreateDeviceInfoList"));
    EXPECT_EQ(ft.FT_CreateDeviceInfoList(&count), 0u);

    ASSERT_TRUE(sim.fail("FT_Write", kIoError, 1));
    std::string lost = "lost", kept = "kept";
    std::uint32_t written = 0;
    EXPECT_EQ(ft.FT_Write(chip, lost.data(), 4, &written), kIoError);
    EXPECT_EQ(ft.FT_Write(chip, kept.data(), 4, &written), 0u);
    char queued[8] = {};
    ASSERT_EQ(ft.FT_SetTimeouts(chip, 1000, 1000), 0u);
    EXPECT_EQ(ft.FT_Read(chip, queued, 4, &written), 0u);
    EXPECT_EQ(std::string(queued), "kept");

    ASSERT_TRUE(sim.fail("FT_Close", kOtherError, 1));
    EXPECT_EQ(ft.FT_Close(chip), kOtherError);
    EXPECT_EQ(sim.openHandles(), 1u);
    FT_HANDLE other = nullptr;
    EXPECT_EQ(ft.FT_OpenEx(const_cast<char*>("F1"), kOpenBySerialNumber, &other), kDeviceNotOpened);

    ASSERT_TRUE(sim.fail("FT_OpenEx", kDeviceNotFound, 1));
    EXPECT_EQ(ft.FT_Close(chip), 0u);
    EXPECT_EQ(ft.FT_OpenEx(const_cast<char*>("F1"), kOpenBySerialNumber, &other), kDeviceNotFound);
    EXPECT_EQ(sim.openHandles(), 0u);
}

// The exact lines of each configuration call are checked where the library
// makes them (tests/usb); here, what is logged and what is not.
TEST_F(SimTest, CallLogListsConfigurationCallsEvenFailedOnesForTheirChipOnly) {
    ASSERT_TRUE(sim.addChip("serial=L1"));
    ASSERT_TRUE(sim.addChip("serial=L2"));
    ASSERT_EQ(list().size(), 2u);
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(ft.FT_Open(0, &handle), 0u);
    FtdiHandle chip(ft, handle);
    ASSERT_TRUE(sim.fail("FT_SetLatencyTimer", kOtherError, 1));
    EXPECT_EQ(ft.FT_SetLatencyTimer(chip.get(), 2), kOtherError);
    EXPECT_EQ(ft.FT_SetBitMode(chip.get(), 0xFF, 0x40), 0u);
    std::uint16_t word = 0;
    std::uint32_t size = 0;
    EXPECT_EQ(ft.FT_ReadEE(chip.get(), 0x43, &word), 0u);  // not configuration calls: not logged
    EXPECT_EQ(ft.FT_EE_UASize(chip.get(), &size), 0u);
    EXPECT_EQ(write(chip, "data"), 0u);
    EXPECT_EQ(readQueued(chip), "data");
    chip.reset();

    EXPECT_EQ(sim.callLog("L1"), "FT_Open\nFT_SetLatencyTimer 2\nFT_SetBitMode 255 64\nFT_Close\n");
    EXPECT_EQ(sim.callLog("L2"), "");
    ASSERT_TRUE(sim.clearCallLog("L1"));
    EXPECT_EQ(sim.callLog("L1"), "");
}

}  // namespace
}  // namespace kmiotest
