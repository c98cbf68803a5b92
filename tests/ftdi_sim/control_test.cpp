// The control interface: chip lines, injected failures and the call log.

#include "sim_fixture.h"

namespace kmiotest {
namespace {

using namespace kmio::d2xx;

TEST_F(SimTest, ChipLinesSetWhatTheListShows) {
    const struct {
        const char* line;
        const char* serial;
        const char* description;
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
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(sim.addChip(c.line)) << c.line;
    }
    const auto nodes = list();
    ASSERT_EQ(nodes.size(), std::size(cases));
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        SCOPED_TRACE(cases[i].line);
        EXPECT_STREQ(nodes[i].SerialNumber, cases[i].serial);
        EXPECT_STREQ(nodes[i].Description, cases[i].description);
        EXPECT_EQ(nodes[i].Type, cases[i].type);
        EXPECT_EQ(nodes[i].Flags, cases[i].flags);
        EXPECT_EQ(nodes[i].ID, cases[i].id);
        EXPECT_EQ(nodes[i].LocId, cases[i].location);
    }
}

TEST_F(SimTest, LongestTextsFitTheListFields) {
    const std::string serial(15, 's'), description(63, 'd');
    ASSERT_TRUE(sim.addChip("serial=" + serial + " description=" + description));
    const auto nodes = list();
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0].SerialNumber, serial);
    EXPECT_EQ(nodes[0].Description, description);
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
        ChipHandle chip(ft, openBySerial("U"));
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
}

TEST_F(SimTest, InjectedFailuresCountDownThenClear) {
    ASSERT_TRUE(sim.addChip("serial=F1"));
    ChipHandle chip(ft, openBySerial("F1"));
    ASSERT_TRUE(sim.fail("FT_SetBaudRate", kOtherError, 2));
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 9600), kOtherError);
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 9600), kOtherError);
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 9600), 0u);

    ASSERT_TRUE(sim.fail("FT_CreateDeviceInfoList", kIoError, -1));
    std::uint32_t count = 0;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ft.FT_CreateDeviceInfoList(&count), kIoError);
    }
    ASSERT_TRUE(sim.clearFailure("FT_CreateDeviceInfoList"));
    EXPECT_EQ(ft.FT_CreateDeviceInfoList(&count), 0u);

    EXPECT_FALSE(sim.fail("FT_Bogus", 1, 1));
    EXPECT_FALSE(sim.fail("FT_Read", 1, -2));
}

TEST_F(SimTest, AFailedCallDoesNotAct) {
    ASSERT_TRUE(sim.addChip("serial=F1"));
    ChipHandle chip(ft, openBySerial("F1"));
    ASSERT_TRUE(sim.fail("FT_Write", kIoError, 1));
    EXPECT_EQ(write(chip.get(), "lost"), kIoError);
    EXPECT_EQ(write(chip.get(), "kept"), 0u);
    EXPECT_EQ(readQueued(chip.get()), "kept");

    ASSERT_TRUE(sim.fail("FT_Close", kOtherError, 1));
    FT_HANDLE raw = chip.get();
    EXPECT_EQ(ft.FT_Close(raw), kOtherError);
    EXPECT_EQ(sim.openHandles(), 1u);
    FT_HANDLE other = nullptr;
    EXPECT_EQ(ft.FT_OpenEx(const_cast<char*>("F1"), kOpenBySerialNumber, &other), kDeviceNotOpened);

    ASSERT_TRUE(sim.fail("FT_OpenEx", kDeviceNotFound, 1));
    EXPECT_EQ(chip.close(), 0u);
    EXPECT_EQ(ft.FT_OpenEx(const_cast<char*>("F1"), kOpenBySerialNumber, &other), kDeviceNotFound);
    EXPECT_EQ(sim.openHandles(), 0u);
}

TEST_F(SimTest, CallLogListsConfigurationCallsInOrder) {
    ASSERT_TRUE(sim.addChip("serial=L1"));
    ASSERT_TRUE(sim.addChip("serial=L2"));
    ASSERT_EQ(list().size(), 2u);
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(ft.FT_Open(0, &handle), 0u);
    ChipHandle chip(ft, handle);
    ASSERT_TRUE(sim.fail("FT_SetLatencyTimer", kOtherError, 1));
    EXPECT_EQ(ft.FT_SetBaudRate(chip.get(), 500000), 0u);
    EXPECT_EQ(ft.FT_SetBitMode(chip.get(), 0xFF, 0), 0u);
    EXPECT_EQ(ft.FT_SetBitMode(chip.get(), 0xFF, 0x40), 0u);
    EXPECT_EQ(ft.FT_SetUSBParameters(chip.get(), 65536, 65536), 0u);
    EXPECT_EQ(ft.FT_SetDataCharacteristics(chip.get(), 8, 0, 0), 0u);
    EXPECT_EQ(ft.FT_SetFlowControl(chip.get(), 0x100, 0, 0), 0u);
    EXPECT_EQ(ft.FT_SetTimeouts(chip.get(), 500, 100), 0u);
    EXPECT_EQ(ft.FT_SetLatencyTimer(chip.get(), 2), kOtherError);
    EXPECT_EQ(ft.FT_Purge(chip.get(), 3), 0u);
    EXPECT_EQ(ft.FT_SetEventNotification(chip.get(), 1, nullptr), 0u);
    std::uint16_t word = 0;
    std::uint32_t size = 0;
    EXPECT_EQ(ft.FT_ReadEE(chip.get(), 0x43, &word), 0u);  // not a configuration call: not logged
    EXPECT_EQ(ft.FT_EE_UASize(chip.get(), &size), 0u);
    EXPECT_EQ(write(chip.get(), "data"), 0u);
    EXPECT_EQ(readQueued(chip.get()), "data");
    EXPECT_EQ(chip.close(), 0u);

    EXPECT_EQ(sim.callLog("L1"),
              "FT_Open\n"
              "FT_SetBaudRate 500000\n"
              "FT_SetBitMode 255 0\n"
              "FT_SetBitMode 255 64\n"
              "FT_SetUSBParameters 65536 65536\n"
              "FT_SetDataCharacteristics 8 0 0\n"
              "FT_SetFlowControl 256 0 0\n"
              "FT_SetTimeouts 500 100\n"
              "FT_SetLatencyTimer 2\n"
              "FT_Purge 3\n"
              "FT_SetEventNotification 1\n"
              "FT_Close\n");
    EXPECT_EQ(sim.callLog("L2"), "");
    EXPECT_EQ(sim.callLog("NOPE"), "");
    ASSERT_TRUE(sim.clearCallLog("L1"));
    EXPECT_EQ(sim.callLog("L1"), "");
    EXPECT_FALSE(sim.clearCallLog("NOPE"));
}

TEST_F(SimTest, ControlCallsNameOnlyKnownChips) {
    EXPECT_FALSE(sim.unplug("NOPE"));
    EXPECT_FALSE(sim.feed("NOPE", "x"));
    EXPECT_FALSE(sim.signalEvent("NOPE"));
    EXPECT_FALSE(sim.stream("NOPE", 10));
    EXPECT_EQ(sim.takeWritten("NOPE"), "");
}

}  // namespace
}  // namespace kmiotest
