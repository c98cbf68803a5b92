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

TEST_F(UsbBindingTest, TheChipIdLibraryIsUsedWhenItLoads) {
    D2xxBinding withLibrary("libftd2xx.so", KMIO_SIM_CHIPID_LIBRARY);
    ASSERT_TRUE(withLibrary.load());
    EXPECT_TRUE(withLibrary.hasChipIdLibrary());
    addChip("serial=R1 ee43=0x1234 ee44=0xABCD chipid=77");
    addChip("serial=R2");
    std::uint32_t id = 0;
    EXPECT_EQ(withLibrary.chipIdFromHandle(openBySerial(withLibrary, "R1").get(), id), d2xx::kOk);
    EXPECT_EQ(id, 77u);
    EXPECT_NE(withLibrary.chipIdFromHandle(openBySerial(withLibrary, "R2").get(), id), d2xx::kOk);
    std::uint32_t count = 0;
    ASSERT_EQ(withLibrary.numDevices(count), d2xx::kOk);
    EXPECT_EQ(count, 2u);
}

// A library that loads but lacks the driver's entry points (the C math
// library) is as unusable as a missing one, and the verdict stands.
TEST_F(UsbBindingTest, ALoadThatFailsIsNotTriedAgain) {
    for (const char* driver : {"libm.so.6", "libkmio-no-such-driver.so"}) {
        D2xxBinding broken(driver, "libftchipid.so");
        EXPECT_FALSE(broken.load()) << driver;
        EXPECT_FALSE(broken.load()) << driver;
        EXPECT_EQ(broken.api().FT_CreateDeviceInfoList, nullptr) << driver;
    }
    // A chip-ID library that lacks its entry points fails the whole load.
    D2xxBinding wrongChipId("libftd2xx.so", "libftd2xx.so");
    EXPECT_FALSE(wrongChipId.load());
}

// Where the chip-ID library is part of the driver's installation (Windows),
// the driver alone is not enough, and that verdict stands too.
TEST_F(UsbBindingTest, ARequiredChipIdLibraryThatIsMissingFailsTheLoad) {
    D2xxBinding required("libftd2xx.so", "libkmio-no-such-chipid.so", true);
    EXPECT_FALSE(required.load());
    EXPECT_FALSE(required.load());
    D2xxBinding present("libftd2xx.so", KMIO_SIM_CHIPID_LIBRARY, true);
    EXPECT_TRUE(present.load());
}

}  // namespace
}  // namespace kmiotest
