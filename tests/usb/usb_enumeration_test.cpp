// USB enumeration against the simulated driver: records, filters, the
// device-list cache, the protocol-id probe and the older type-1 list.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "interface/enumeration.h"
#include "interface/process.h"
#include "usb_sim_fixture.h"

namespace kmiotest {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using UsbEnumerationTest = UsbSimTest;

// A device without protocol ids (it answers with none) or chip id (erased
// words) keeps one record.
TEST_F(UsbEnumerationTest, OneRecordPerProtocolIdWithItsKeysInOrder) {
    addChip("serial=KM1 description=\"Kalomet DRV2\" vid=0x0403 pid=0x6010 protocols=146,150" + kWords);
    addChip("serial=KM2 description=\"Kalomet DRV2\"");
    const auto km1 = [](const std::string& locator, const char* protocolId) {
        return "iface-type=usb|usb-vid=1027|usb-pid=24592|usb-desc=Kalomet DRV2|device-sn=KM1|locator=" +
               locator + "|available=1|usb-id=" + kId + "|protocol-id=" + protocolId;
    };
    const auto km2 = [](const std::string& locator) {
        return "iface-type=usb|usb-vid=1027|usb-pid=24577|usb-desc=Kalomet DRV2|device-sn=KM2|locator=" +
               locator + "|available=1";
    };
    const struct {
        std::string options;
        std::string text;
    } cases[] = {
        {"", km1("usb:sn:KM1", "146") + "\n" + km1("usb:sn:KM1", "150") + "\n" + km2("usb:sn:KM2")},
        {"locator-format-usb id",
         km1("usb:id:" + kId, "146") + "\n" + km1("usb:id:" + kId, "150") + "\n" + km2("usb:id:0")},
        {"find-protocol-id 150", km1("usb:sn:KM1", "150")},
        {"find-protocol-id 999", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(enumerate(c.options), c.text) << c.options;
    }
}

TEST_F(UsbEnumerationTest, FiltersInTheirOrder) {
    addChip("serial=A description=\"Kalomet DRV-I\" vid=0x0403 pid=0x6001");
    addChip("serial=B description=\"Kalomet HUB-3X\" vid=0x0403 pid=0x6015");
    addChip("serial=C description=\"Kalomet DRV-I\" vid=0x1234 pid=0x6001");
    addChip("serial=D description=\"Kalomet DRV-I\" type=3");  // the driver's unknown type: never listed
    addChip("serial=E description=\"Kalomet DRV-I\"");         // opened below by another program
    std::string e = "E";
    kmio::d2xx::FT_HANDLE other = nullptr;
    ASSERT_EQ(sim.driver().FT_OpenEx(e.data(), kmio::d2xx::kOpenBySerialNumber, &other), 0u);

    // Serial numbers, an unavailable device's marked with *.
    struct Case {
        std::string options;
        std::string serials;
    };
    for (const Case& c : std::vector<Case>{
             {"", "A B C"},
             {"find-only-available false", "A B C E*"},
             {"find-usb-product-name Kalomet HUB-3X", "B"},
             {"find-usb-vid 1027", "A B"},
             {"find-usb-vid 4660\nfind-usb-vid 1027\nfind-usb-pid 24577", "A C"},
             {"find-usb-product-name Kalomet DRV-I\nfind-usb-vid 1027", "A"},
         }) {
        kmio::RecordList records;
        ASSERT_EQ(kmio::enumerateUsbDevices(kmio::EnumerationOptions::parse(c.options + "\nforce-rescan").usb,
                                            records, cache),
                  KM_IO_OK);
        std::string serials;
        for (const kmio::PropertyRecord& record : records) {
            serials += (serials.empty() ? "" : " ") + *record.find("device-sn") +
                       (*record.find("available") == "0" ? "*" : "");
        }
        EXPECT_EQ(serials, c.serials) << c.options;
    }
    sim.driver().FT_Close(other);
}

TEST_F(UsbEnumerationTest, ADualChannelChipIsListedOnceAsChannelA) {
    addChip("serial=KM9A description=\"Kalomet Detect A\" type=6 highspeed=1 protocols=181 reply240=32766");
    addChip("serial=KM9B description=\"Kalomet Detect B\" type=6 highspeed=1 protocols=181 reply240=32766");
    // The marker counts only for a dual-channel chip named by row 3.
    addChip("serial=KM8A description=\"Kalomet DRV2 A\" type=6 highspeed=1 protocols=181 reply240=32766");
    addChip("serial=KM7 description=\"Kalomet Detect\" type=6 protocols=181 reply240=32766 ua=KMIO\\x0b");
    const std::string text = enumerate("");
    const std::string listed = "locator=usb:sn:KM9|available=1|protocol-id=";
    for (const auto& [needle, present] : std::initializer_list<std::pair<std::string, bool>>{
             {"usb-desc=Kalomet Detect|device-sn=KM9|" + listed + "180\n", true},
             {"usb-desc=Kalomet Detect|device-sn=KM9|" + listed + "181\n", true},
             {"KM9B", false},
             {"Detect B", false},
             {"usb-desc=Kalomet DRV2|device-sn=KM8|locator=usb:sn:KM8|available=1|protocol-id=181", true},
             {"device-sn=KM8|locator=usb:sn:KM8|available=1|protocol-id=180", false},
             {"device-sn=KM7|locator=usb:sn:KM7|available=1|protocol-id=180", false},
             {"device-sn=KM7|locator=usb:sn:KM7|available=1|protocol-id=181", true},
         }) {
        EXPECT_EQ(text.find(needle) != std::string::npos, present) << needle << "\n" << text;
    }
}

// Product-name rows 1 and 4 need no probe; every other device is probed
// with the configuration of its link profile. The call log shows the probe
// (open, configuration, close) and then the chip-id read (open, close).
TEST_F(UsbEnumerationTest, EachLinkProfileConfiguresTheProbe) {
    const std::string common =
        "FT_SetDataCharacteristics 8 0 0\nFT_SetFlowControl %s 0 0\nFT_SetTimeouts 500 100\n"
        "FT_SetLatencyTimer 2\nFT_Purge 3\nFT_Close\nFT_Open\nFT_Close\n";
    const auto expect = [&](const std::string& head, const char* flow) {
        char tail[256];
        std::snprintf(tail, sizeof tail, common.c_str(), flow);
        return "FT_Open\n" + head + "FT_SetUSBParameters 65536 65536\n" + tail;
    };
    struct Case {
        std::string chip;
        std::string log;
    };
    const std::vector<Case> cases{
        {"description=\"Kalomet DRV-I\"", "FT_Open\nFT_Close\n"},
        {"description=\"Kalomet HUB-3X\" ua=KMIO\\x0c", "FT_Open\nFT_Close\n"},
        {"description=Other ua=KMIO\\x01", expect("FT_SetBaudRate 500000\n", "0")},
        {"description=Other ua=KMIO\\x0a", expect("FT_SetBaudRate 12000000\n", "256")},
        {"description=Other ua=KMIO\\x0b", expect("FT_SetBitMode 255 0\nFT_SetBitMode 255 64\n", "256")},
        {"description=Other ua=KMIO\\x0c", expect("FT_SetBaudRate 3000000\n", "0")},
        {"description=\"Kalomet DRV2\"", expect("FT_SetBaudRate 12000000\n", "256")},
        {"description=\"Kalomet Detect A\" type=6 highspeed=1",
         expect("FT_SetBitMode 255 0\nFT_SetBitMode 255 64\n", "256")},
        // Not supported: opened for the user area, closed at once.
        {"description=Other ua=KMIO\\xff", "FT_Open\nFT_Close\nFT_Open\nFT_Close\n"},
        {"description=Other", "FT_Open\nFT_Close\nFT_Open\nFT_Close\n"},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(sim.reset());
        addChip("serial=P1 protocols=200 " + c.chip);
        const std::string text = enumerate("force-rescan");
        EXPECT_EQ(sim.callLog("P1"), c.log) << c.chip;
        const bool supported = c.log.find("FT_Purge") != std::string::npos || c.log == "FT_Open\nFT_Close\n";
        EXPECT_EQ(text.find("protocol-id=") != std::string::npos, supported) << c.chip << "\n" << text;
    }
}

// A probe that fails at any of its driver calls, or meets a chip that
// answers wrongly or not at all, leaves the device listed without protocol
// ids, after a bounded wait and with no handle left open.
TEST_F(UsbEnumerationTest, AFailedProbeLeavesTheDeviceWithoutProtocolIds) {
    struct Case {
        std::string chip;
        std::string failCall;
    };
    std::vector<Case> cases{{"ua=KMIO\\x0b", "FT_SetBitMode"}};
    for (const char* call :
         {"FT_Open", "FT_EE_UASize", "FT_EE_UARead", "FT_SetBaudRate", "FT_SetUSBParameters",
          "FT_SetDataCharacteristics", "FT_SetFlowControl", "FT_SetTimeouts", "FT_SetLatencyTimer",
          "FT_Purge", "FT_Write", "FT_GetStatus", "FT_Read"}) {
        cases.push_back({"ua=KMIO\\x0c", call});
    }
    for (const char* probe : {"garbage", "silent", "bad128"}) {
        cases.push_back({std::string("ua=KMIO\\x0c probe=") + probe, ""});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.chip + " " + c.failCall);
        ASSERT_TRUE(sim.reset());
        addChip("serial=P1 description=Other protocols=200 " + c.chip);
        if (!c.failCall.empty()) {
            ASSERT_TRUE(sim.fail(c.failCall, kmio::d2xx::kOtherError));
        }
        const auto start = Clock::now();
        const std::string text = enumerate("force-rescan");
        EXPECT_LT(Clock::now() - start, 3s);
        EXPECT_NE(text.find("device-sn=P1"), std::string::npos);
        EXPECT_EQ(text.find("protocol-id"), std::string::npos);
        EXPECT_EQ(sim.openHandles(), 0u);
    }
}

TEST_F(UsbEnumerationTest, TheListIsCachedFor1500MsUnlessRescanIsForced) {
    addChip("serial=OLD description=\"Kalomet DRV-I\"");
    EXPECT_NE(enumerate("").find("device-sn=OLD"), std::string::npos);
    ASSERT_TRUE(sim.unplug("OLD"));
    addChip("serial=NEW description=\"Kalomet DRV-I\"");
    clock.advance(1499ms);
    const std::string cached = enumerate("");
    EXPECT_NE(cached.find("device-sn=OLD"), std::string::npos) << cached;
    EXPECT_EQ(cached.find("device-sn=NEW"), std::string::npos) << cached;
    clock.advance(2ms);  // 1501 ms after the scan
    const std::string fresh = enumerate("");
    EXPECT_EQ(fresh.find("device-sn=OLD"), std::string::npos) << fresh;
    EXPECT_NE(fresh.find("device-sn=NEW"), std::string::npos) << fresh;

    // Within the freshness, force-rescan sees a change at once.
    ASSERT_TRUE(sim.unplug("NEW"));
    EXPECT_NE(enumerate("").find("device-sn=NEW"), std::string::npos);
    EXPECT_EQ(enumerate("force-rescan"), "");
}

TEST_F(UsbEnumerationTest, ChipIdsAreReadOncePerScan) {
    addChip("serial=KM1 description=\"Kalomet DRV-I\"" + kWords);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(enumerate("").find("usb-id=" + kId), std::string::npos);
    }
    EXPECT_EQ(sim.callLog("KM1"), "FT_Open\nFT_Close\n");
    EXPECT_NE(enumerate("force-rescan").find("usb-id=" + kId), std::string::npos);
    EXPECT_EQ(sim.callLog("KM1"), "FT_Open\nFT_Close\nFT_Open\nFT_Close\n");
}

TEST_F(UsbEnumerationTest, DriverListFailuresGive13AndBadFormatGives4BeforeScanning) {
    addChip("serial=KM1 description=\"Kalomet DRV-I\"");
    for (const char* call : {"FT_CreateDeviceInfoList", "FT_GetDeviceInfoList"}) {
        SCOPED_TRACE(call);
        ASSERT_TRUE(sim.fail(call, kmio::d2xx::kOtherError));
        enumerate("force-rescan", KM_IO_ERR_ENUMERATION_FAILED);
        ASSERT_TRUE(sim.fail(call, kmio::d2xx::kOtherError));
        listOlder("force-rescan", KM_IO_ERR_ENUMERATION_FAILED);
    }
    ASSERT_TRUE(sim.fail("FT_CreateDeviceInfoList", kmio::d2xx::kOtherError, -1));
    for (const char* format : {"host", "SN", "", "sn:"}) {
        enumerate(std::string("force-rescan\nlocator-format-usb ") + format, KM_IO_ERR_BAD_OPTIONS);
    }
    ASSERT_TRUE(sim.clearFailure("FT_CreateDeviceInfoList"));
    EXPECT_NE(enumerate("force-rescan").find("KM1"), std::string::npos);
}

TEST_F(UsbEnumerationTest, TheOlderListWritesTheFlaggedFieldsInItsOrder) {
    addChip("serial=KM1 description=\"Kalomet DRV-I\" vid=0x0403 pid=0x6001" + kWords);
    addChip("serial=KM9A description=\"Kalomet Detect A\" type=6 highspeed=1 vid=0x0403 pid=0x6010");
    addChip("serial=KM9B description=\"Kalomet Detect B\" type=6 highspeed=1 vid=0x0403 pid=0x6010");
    addChip("serial=X1 description=Other vid=0x1111 pid=0x2222");
    struct Case {
        std::string options;
        std::string text;
    };
    const std::vector<Case> cases{
        {"", "usb\nusb\nusb"},
        {"include-sn", "usb:sn:KM1\nusb:sn:KM9\nusb:sn:X1"},
        {"include-sn\ninclude-ds\ninclude-usb-pid\ninclude-usb-vid\ninclude-id",
         "usb:id:" + kId +
             ":usb-vid:1027:usb-pid:24577:ds:Kalomet DRV-I:sn:KM1\n"
             "usb:id:0:usb-vid:1027:usb-pid:24592:ds:Kalomet Detect:sn:KM9\n"
             "usb:id:0:usb-vid:4369:usb-pid:8738:ds:Other:sn:X1"},
        {"product-name Kalomet Detect\nproduct-name Other\ninclude-ds",
         "usb:ds:Kalomet Detect\nusb:ds:Other"},
        // A flag counts wherever its name stands, here behind a number.
        {"usb-vid 4369 include-sn", "usb:sn:X1"},
        {"usb-pid 24577\nusb-pid 24592\ninclude-sn", "usb:sn:KM1\nusb:sn:KM9"},
        {"product-name Nothing", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(listOlder(c.options), c.text) << c.options;
    }
    // Opened devices are not in the older list.
    std::string x1 = "X1";
    kmio::d2xx::FT_HANDLE other = nullptr;
    ASSERT_EQ(sim.driver().FT_OpenEx(x1.data(), kmio::d2xx::kOpenBySerialNumber, &other), 0u);
    EXPECT_EQ(listOlder("force-rescan\ninclude-sn"), "usb:sn:KM1\nusb:sn:KM9");
    sim.driver().FT_Close(other);
}

// Through the entry point: the buffer convention, and a number that does not
// convert as a bad option.
TEST_F(UsbEnumerationTest, TheTypeOneEntryPointUsesTheOlderList) {
    addChip("serial=KM1 description=\"Kalomet DRV-I\"");
    std::size_t size = 0;
    EXPECT_EQ(kmio::enumerateDevices(kmio::Process::instance(), KM_IO_IFACE_USB, "include-sn\nforce-rescan",
                                     nullptr, &size),
              KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, std::string("usb:sn:KM1").size() + 1);
    std::string buffer(size, '\0');
    EXPECT_EQ(kmio::enumerateDevices(kmio::Process::instance(), KM_IO_IFACE_USB, "include-sn", buffer.data(),
                                     &size),
              KM_IO_OK);
    EXPECT_EQ(std::string(buffer.c_str()), "usb:sn:KM1");
    for (const char* options : {"usb-vid abc", "usb-pid 99999999999"}) {
        size = buffer.size();
        EXPECT_EQ(
            kmio::enumerateDevices(kmio::Process::instance(), KM_IO_IFACE_USB, options, buffer.data(), &size),
            KM_IO_ERR_BAD_OPTIONS)
            << options;
    }
}

}  // namespace
}  // namespace kmiotest
