// The driver binding against the simulated driver, loaded by the driver's
// own name from the loader's search path.
#include <gtest/gtest.h>

#include <string>

#include "usb/chip_id.h"
#include "usb/ftdi_handle.h"
#include "usb_sim_fixture.h"

namespace kmiotest {
namespace {

using kmio::D2xxBinding;
using kmio::FtdiHandle;
namespace d2xx = kmio::d2xx;

FtdiHandle openBySerial(const D2xxBinding& binding, std::string serial) {
    d2xx::FT_HANDLE raw = nullptr;
    EXPECT_EQ(binding.api().FT_OpenEx(serial.data(), d2xx::kOpenBySerialNumber, &raw), d2xx::kOk) << serial;
    return FtdiHandle(binding.api(), raw);
}

using UsbBindingTest = UsbSimTest;

// No chip-ID library on the path (there is none for 64-bit Linux): the chip
// id comes from the EEPROM words, the count from the driver's list.
TEST_F(UsbBindingTest, WithoutTheChipIdLibraryTheBuiltInEquivalentsAnswer) {
    ASSERT_TRUE(binding.load());
    EXPECT_FALSE(binding.hasChipIdLibrary());
    addChip("serial=R1 ee43=0x1234 ee44=0xABCD chipid=77");
    addChip("serial=R2");  // erased words: no id
    std::uint32_t count = 0;
    ASSERT_EQ(binding.numDevices(count), d2xx::kOk);
    EXPECT_EQ(count, 2u);

    std::uint32_t id = 0;
    EXPECT_EQ(binding.chipIdFromHandle(openBySerial(binding, "R1").get(), id), d2xx::kOk);
    EXPECT_EQ(id, 0xBCB85023u);
    EXPECT_EQ(binding.chipIdFromHandle(openBySerial(binding, "R2").get(), id), d2xx::kNotSupported);
    ASSERT_TRUE(sim.fail("FT_ReadEE", d2xx::kIoError));
    EXPECT_EQ(binding.chipIdFromHandle(openBySerial(binding, "R1").get(), id), d2xx::kIoError);
}

// The simulated chip-ID library answers with the configured ids, and with
// the driver's status for an injected failure or an unplugged chip.
TEST_F(UsbBindingTest, TheChipIdLibraryIsUsedWhenItLoads) {
    D2xxBinding withLibrary("libftd2xx.so", KMIO_SIM_CHIPID_LIBRARY);
    ASSERT_TRUE(withLibrary.load());
    EXPECT_TRUE(withLibrary.hasChipIdLibrary());
    addChip("serial=R1 ee43=0x1234 ee44=0xABCD chipid=77");
    addChip("serial=R2");
    const FtdiHandle withId = openBySerial(withLibrary, "R1");
    std::uint32_t id = 0;
    EXPECT_EQ(withLibrary.chipIdFromHandle(withId.get(), id), d2xx::kOk);
    EXPECT_EQ(id, 77u);
    EXPECT_EQ(withLibrary.chipIdFromHandle(openBySerial(withLibrary, "R2").get(), id), d2xx::kInvalidHandle);
    std::uint32_t count = 0;
    ASSERT_EQ(withLibrary.numDevices(count), d2xx::kOk);
    EXPECT_EQ(count, 2u);

    ASSERT_TRUE(sim.fail("FTID_GetChipIDFromHandle", d2xx::kOtherError));
    EXPECT_EQ(withLibrary.chipIdFromHandle(withId.get(), id), d2xx::kOtherError);
    ASSERT_TRUE(sim.fail("FTID_GetNumDevices", d2xx::kIoError));
    EXPECT_EQ(withLibrary.numDevices(count), d2xx::kIoError);
    ASSERT_TRUE(sim.unplug("R1"));
    EXPECT_EQ(withLibrary.chipIdFromHandle(withId.get(), id), d2xx::kIoError);
    ASSERT_EQ(withLibrary.numDevices(count), d2xx::kOk);
    EXPECT_EQ(count, 1u);
}

// A library that loads but lacks the driver's entry points (the C math
// library) is as unusable as a missing one, and so is a chip-ID library that
// lacks its own, or one that is missing where the driver's installation
// includes it (Windows). Each verdict stands.
TEST_F(UsbBindingTest, ALoadThatFailsIsNotTriedAgain) {
    const struct {
        const char* driver;
        const char* chipId;
        bool chipIdRequired;
        bool loads;
    } cases[] = {
        {"libm.so.6", "libftchipid.so", false, false},
        {"libkmio-no-such-driver.so", "libftchipid.so", false, false},
        {"libftd2xx.so", "libftd2xx.so", false, false},
        {"libftd2xx.so", "libkmio-no-such-chipid.so", true, false},
        {"libftd2xx.so", KMIO_SIM_CHIPID_LIBRARY, true, true},
    };
    for (const auto& c : cases) {
        D2xxBinding binding(c.driver, c.chipId, c.chipIdRequired);
        EXPECT_EQ(binding.load(), c.loads) << c.driver << " / " << c.chipId;
        EXPECT_EQ(binding.load(), c.loads) << c.driver << " / " << c.chipId;
        EXPECT_EQ(binding.api().FT_CreateDeviceInfoList != nullptr, c.loads) << c.driver << " / " << c.chipId;
    }
}

}  // namespace
}  // namespace kmiotest
