// Calls the exported functions as an application does: this executable links
// only the shared library and sees only the public header.

#include <gtest/gtest.h>
#include <kmio/kmio.h>

#include <cstring>
#include <string>

namespace {

TEST(ApiTest, VersionAndLocatorClassification) {
    uint32_t major = 0, minor = 0, update = 9;
    EXPECT_EQ(KM_IO_GetVersion(&major, &minor, &update), KM_IO_OK);
    EXPECT_EQ(major * 10000 + minor * 100 + update, 20200u);

    const std::pair<const char*, uint32_t> cases[] = {
        {"usb:sn:KM1", 1},       {"usb:", 1}, {"usb:network:x", 1}, {"network:", 2},
        {"serial:COM3:junk", 3}, {"usb", 0},  {"Usb:sn:1", 0},      {":usb:sn:1", 0},
        {"usbnet:x", 0},         {"", 0},     {" usb:x", 0},
    };
    for (const auto& [locator, expected] : cases) {
        uint32_t type = 99;
        EXPECT_EQ(KM_IO_GetLocatorInterfaceType(&type, locator),
                  expected != 0 ? KM_IO_OK : KM_IO_ERR_BAD_LOCATOR)
            << locator;
        EXPECT_EQ(type, expected) << locator;
    }
    uint32_t handle = 77;
    EXPECT_EQ(KM_IO_Open(&handle, "bogus:1", nullptr, nullptr, nullptr, nullptr), KM_IO_ERR_BAD_LOCATOR);
    EXPECT_EQ(handle, 0u);
}

TEST(ApiTest, ANullEventRecordIsTheWrongEventTypeAndNothingIsWritten) {
    uint32_t code = 77;
    char buffer[8] = "keep";
    size_t size = sizeof buffer;
    EXPECT_EQ(KM_IO_GetErrorEventData(nullptr, &code, buffer, &size), KM_IO_ERR_WRONG_EVENT_TYPE);
    EXPECT_EQ(KM_IO_GetDiscoveryEventData(nullptr, "include-all", buffer, &size), KM_IO_ERR_WRONG_EVENT_TYPE);
    EXPECT_EQ(code, 77u);
    EXPECT_EQ(size, sizeof buffer);
    EXPECT_STREQ(buffer, "keep");
}

// The pointers the header lets the caller leave null.
TEST(ApiTest, NullTextArgumentsGiveTheirDocumentedResults) {
    uint32_t type = 99;
    EXPECT_EQ(KM_IO_GetLocatorInterfaceType(&type, nullptr), KM_IO_ERR_BAD_LOCATOR);
    EXPECT_EQ(type, 0u);
    uint32_t handle = 77;
    EXPECT_EQ(KM_IO_Open(&handle, nullptr, nullptr, nullptr, nullptr, nullptr), KM_IO_ERR_BAD_LOCATOR);
    EXPECT_EQ(handle, 0u);
    size_t size = 0;
    EXPECT_EQ(KM_IO_GetProperty(63, nullptr, nullptr, &size), KM_IO_ERR_INVALID_HANDLE);
    // A null option string is "": the settings stay as they are.
    EXPECT_EQ(KM_IO_SetGlobalOptions(nullptr), KM_IO_OK);
    // A null buffer with capacity 0 asks for the size.
    size = 0;
    EXPECT_EQ(KM_IO_EnumerateInterfaces("iface-type serial\ninclude-iface-type", nullptr, &size),
              KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_GE(size, 1u);
    EXPECT_EQ(KM_IO_SetEventCallback(nullptr, nullptr), KM_IO_OK);
}

TEST(ApiTest, BadHandlesGiveInvalidHandle) {
    char value[8];
    for (uint32_t handle : {64u, 0xFFFFFFFFu, 63u}) {
        size_t size = sizeof value;
        EXPECT_EQ(KM_IO_Close(handle, 0), KM_IO_ERR_INVALID_HANDLE) << handle;
        EXPECT_EQ(KM_IO_Close(handle, 1), KM_IO_ERR_INVALID_HANDLE) << handle;
        EXPECT_EQ(KM_IO_Send(handle, "x", 1), KM_IO_ERR_INVALID_HANDLE) << handle;
        EXPECT_EQ(KM_IO_GetProperty(handle, "name", value, &size), KM_IO_ERR_INVALID_HANDLE) << handle;
    }
}

TEST(ApiTest, OnlyUsbAndSerialEnumerateOnTheirOwn) {
    const uint32_t types[][2] = {{1, 1}, {2, 0}, {3, 1}, {9999, 0}, {0, 0}};
    for (const auto& [type, expected] : types) {
        uint32_t can = 99;
        EXPECT_EQ(KM_IO_CanEnumerateDevices(type, &can), KM_IO_OK);
        EXPECT_EQ(can, expected) << type;
        size_t size = 0;
        if (expected == 0 && type != KM_IO_IFACE_ALL) {
            EXPECT_EQ(KM_IO_EnumerateDevices(type, "", nullptr, &size), KM_IO_ERR_NOT_SUPPORTED) << type;
        }
    }
}

// This test runs without FTDI's driver on the loader's path: every USB open
// says the driver is not usable, and so does the USB listing, while the
// combined listing goes on without USB devices.
TEST(ApiTest, UsbWithoutTheDriverLibrary) {
    const auto receive = [](void*, const uint8_t*, size_t) {};
    for (const char* locator : {"usb:sn:KM1", "usb:id:305419896", "usb:0", "usb:nonsense:1:2"}) {
        uint32_t handle = 7;
        EXPECT_EQ(KM_IO_Open(&handle, locator, "", nullptr, receive, nullptr), KM_IO_ERR_DRIVER_UNAVAILABLE)
            << locator;
        EXPECT_EQ(handle, 0u);
    }
    char text[16];
    size_t size = sizeof text;
    EXPECT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_USB, "", text, &size), KM_IO_ERR_DRIVER_UNAVAILABLE);
    size = sizeof text;
    EXPECT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, "iface-type usb", text, &size), KM_IO_OK);
    EXPECT_EQ(size, 0u);
    // A bad USB locator format is still a bad option, driver or not.
    size = sizeof text;
    EXPECT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, "iface-type usb\nlocator-format-usb host", text, &size),
              KM_IO_ERR_BAD_OPTIONS);
}

TEST(ApiTest, BadOptionStringsGiveBadOptions) {
    char buffer[256];
    size_t size = sizeof buffer;
    for (const char* options :
         {"strict\nbogus 1", "discovery-timeout abc", "strict maybe", "only-locator yes"})
        EXPECT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, options, buffer, &size), KM_IO_ERR_BAD_OPTIONS)
            << options;
    for (const char* options : {"strict\nbogus 1", "only-name\nonly-iface-type", "include-name x"})
        EXPECT_EQ(KM_IO_EnumerateInterfaces(options, buffer, &size), KM_IO_ERR_BAD_OPTIONS) << options;
    EXPECT_EQ(KM_IO_SetGlobalOptions("strict\nbogus 1"), KM_IO_ERR_BAD_OPTIONS);
    // Null options read as none: no port anywhere, so the network open is refused.
    uint32_t handle = 77;
    EXPECT_EQ(KM_IO_Open(&handle, "network:127.0.0.1", nullptr, nullptr, nullptr, nullptr),
              KM_IO_ERR_BAD_OPTIONS);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(KM_IO_SetGlobalOptions(nullptr), KM_IO_OK);
}

TEST(ApiTest, CombinedEnumerationFollowsTheBufferConvention) {
    const char* options = "iface-type serial\ninclude-all";
    size_t needed = 0;
    ASSERT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, options, nullptr, &needed), KM_IO_ERR_BUFFER_TOO_SMALL);
    ASSERT_GE(needed, 1u);
    std::string buffer(needed + 1, '#');
    size_t size = needed - 1;
    EXPECT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, options, buffer.data(), &size),
              KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(buffer, std::string(needed + 1, '#'));
    EXPECT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, options, buffer.data(), &size), KM_IO_OK);
    EXPECT_EQ(size, needed - 1);
    EXPECT_EQ(std::strlen(buffer.c_str()), needed - 1);
    EXPECT_EQ(buffer[needed], '#');
}

}  // namespace
