// Without FTDI's driver on the loader's search path: every USB open and the
// USB listing say the driver is not usable, the combined listing goes on
// without USB, and the verdict is never revisited in the process, even once
// the driver has become loadable.
//
// The executable's RPATH names a folder that is empty when the test starts
// (nothing else is on the search path: LD_LIBRARY_PATH does not name the
// simulator). An executable's RPATH is searched by every dlopen in the
// process, so the library's loader and this test's own dlopen calls search
// the same path. After the first failure the test links the simulator into
// that folder and shows that the driver now loads from there, then that the
// library still answers as if it did not.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "interface/device_factory.h"
#include "interface/enumeration.h"
#include "interface/process.h"
#include "kmio/kmio.h"

namespace {

namespace fs = std::filesystem;

void expectDriverUnavailable(const char* when) {
    const auto receive = [](void*, const std::uint8_t*, std::size_t) {};
    for (const char* locator : {"usb:sn:KM1", "usb:id:305419896", "usb:0", "usb:bad:locator:shape"}) {
        kmio::Process& process = kmio::Process::instance();
        auto device = kmio::makeDevice({process.usbDevices(), process.discovery()}, KM_IO_IFACE_USB, locator, "",
                                       nullptr, receive, nullptr);
        ASSERT_TRUE(device);
        EXPECT_EQ(device->open(device), KM_IO_ERR_DRIVER_UNAVAILABLE) << when << ": " << locator;
    }
    char text[64] = "unchanged";
    std::size_t size = sizeof text;
    EXPECT_EQ(kmio::enumerateDevices(kmio::Process::instance(), KM_IO_IFACE_USB, "include-sn", text, &size),
              KM_IO_ERR_DRIVER_UNAVAILABLE)
        << when;
    EXPECT_EQ(std::string(text), "unchanged") << when;
    size = sizeof text;
    EXPECT_EQ(kmio::enumerateDevices(kmio::Process::instance(), KM_IO_IFACE_ALL,
                                     "iface-type usb\ninclude-all", text, &size),
              KM_IO_OK)
        << when;
    EXPECT_EQ(size, 0u) << when;
    EXPECT_TRUE(kmio::canEnumerateDevices(KM_IO_IFACE_USB)) << when;
}

TEST(UsbDriverMissingTest, FourteenWhereTheDriverIsNeededAndNeverRetried) {
    const fs::path folder = KMIO_LATE_DRIVER_DIR;
    const fs::path link = folder / "libftd2xx.so";
    ASSERT_TRUE(fs::is_directory(folder)) << "the run-path folder must exist when the test starts";
    fs::remove(link);
    ASSERT_EQ(::dlopen("libftd2xx.so", RTLD_NOW | RTLD_NOLOAD), nullptr);
    void* before = ::dlopen("libftd2xx.so", RTLD_NOW);
    ASSERT_EQ(before, nullptr) << "a driver is on the search path; this test needs none";

    expectDriverUnavailable("first use");

    fs::create_symlink(KMIO_SIM_DRIVER_LIBRARY, link);
    struct Unlink {
        fs::path path;
        ~Unlink() { fs::remove(path); }
    } cleanup{link};
    void* after = ::dlopen("libftd2xx.so", RTLD_NOW);
    ASSERT_NE(after, nullptr) << "the driver should now be found on the search path: " << ::dlerror();

    expectDriverUnavailable("after the driver became loadable");
    ::dlclose(after);
}

}  // namespace
