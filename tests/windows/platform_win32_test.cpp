// The Windows platform twins: wake-up event, error text, adapter list,
// run-time library loading with the error mode, and the driver structures'
// layout per width.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>

#include "discovery/adapters.h"
#include "platform/dynamic_library.h"
#include "platform/error_text.h"
#include "platform/interface_addresses.h"
#include "platform/scoped_critical_error_mode.h"
#include "platform/wake_event.h"
#include "usb/d2xx_types.h"

namespace {

// The driver's device list node has its 32-bit layout on 32-bit Windows.
#if defined(_WIN64)
static_assert(sizeof(kmio::d2xx::FT_DEVICE_LIST_INFO_NODE) == 104);
#else
static_assert(sizeof(kmio::d2xx::FT_DEVICE_LIST_INFO_NODE) == 100);
#endif

HANDLE handleOf(const kmio::WakeEvent& event) {
    return reinterpret_cast<HANDLE>(event.native());
}

TEST(WakeEventWin32, StaysSignalledUntilReset) {
    kmio::WakeEvent event;
    EXPECT_EQ(::WaitForSingleObject(handleOf(event), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    ASSERT_TRUE(event.signal());
    EXPECT_EQ(::WaitForSingleObject(handleOf(event), 0), WAIT_OBJECT_0);
    EXPECT_EQ(::WaitForSingleObject(handleOf(event), 0), WAIT_OBJECT_0) << "a second waiter sees it too";
    event.reset();
    EXPECT_EQ(::WaitForSingleObject(handleOf(event), 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST(ErrorTextWin32, IsTheSystemMessageWithoutTheLineBreak) {
    const std::string text = kmio::systemErrorText(ERROR_FILE_NOT_FOUND);
    char expected[256] = {};
    ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                     ERROR_FILE_NOT_FOUND, 0, expected, sizeof expected, nullptr);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(std::string(expected).rfind(text, 0), 0u) << "the system's text, cut before its line break";
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);

    ::SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(kmio::lastSystemErrorText(), kmio::systemErrorText(ERROR_ACCESS_DENIED));
    EXPECT_NE(kmio::lastSystemErrorText(), text);
}

TEST(DynamicLibraryWin32, LoadsFindsExportsAndTellsWhyALoadFailed) {
    const kmio::DynamicLibrary kernel32("kernel32.dll");
    ASSERT_TRUE(kernel32.loaded()) << kernel32.error();
    EXPECT_EQ(kernel32.symbol("GetTickCount"),
              reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernel32.dll"), "GetTickCount")));
    EXPECT_EQ(kernel32.symbol("NoSuchExportAnywhere"), nullptr);

    kmio::DynamicLibrary moved = kmio::DynamicLibrary("kernel32.dll");
    EXPECT_TRUE(moved.loaded());

    const kmio::DynamicLibrary missing("kmio-no-such-library.dll");
    EXPECT_FALSE(missing.loaded());
    EXPECT_EQ(missing.symbol("GetTickCount"), nullptr);
    EXPECT_NE(missing.error().find("kmio-no-such-library.dll: "), std::string::npos) << missing.error();
    EXPECT_GT(missing.error().size(), std::string("kmio-no-such-library.dll: ").size());
}

// The thread's mode is set for the scope only and comes back as it was, not
// as a default.
TEST(ScopedCriticalErrorModeWin32, FailsCriticalErrorsInItsScopeOnly) {
    DWORD original = 0;
    ASSERT_TRUE(::SetThreadErrorMode(SEM_NOGPFAULTERRORBOX, &original));
    {
        const kmio::ScopedCriticalErrorMode mode;
        ASSERT_TRUE(mode.active());
        EXPECT_EQ(::GetThreadErrorMode(), static_cast<DWORD>(SEM_FAILCRITICALERRORS));
    }
    EXPECT_EQ(::GetThreadErrorMode(), static_cast<DWORD>(SEM_NOGPFAULTERRORBOX));
    ::SetThreadErrorMode(original, nullptr);
}

TEST(InterfaceAddressesWin32, ListLoopbackMarkedAndAdaptersLeaveItOut) {
    const auto addresses = kmio::listInterfaceAddresses();
    const auto loopback =
        std::find_if(addresses.begin(), addresses.end(),
                     [](const kmio::InterfaceAddress& a) { return a.address == 0x7F000001; });
    ASSERT_NE(loopback, addresses.end()) << "every machine has 127.0.0.1";
    EXPECT_TRUE(loopback->loopback);
    EXPECT_EQ(loopback->netmask, 0xFF000000u);

    for (const kalometnd::AdapterInfo& adapter : kalometnd::listAdapters()) {
        EXPECT_NE(adapter.address >> 24, 127u) << adapter.adapterName;
        // A mask made from a prefix length is ones followed by zeros.
        const std::uint32_t inverted = ~adapter.netmask;
        EXPECT_EQ(inverted & (inverted + 1), 0u) << adapter.adapterName;
    }
}

}  // namespace
