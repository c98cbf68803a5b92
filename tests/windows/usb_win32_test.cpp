// The USB link on Windows through kmio.dll, against the simulated driver
// (ftd2xx.dll and FTChipID.dll) that sits in this program's own folder,
// where Windows looks first and where an application would ship FTDI's DLLs.
#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>

#include "../../tools/ftdi-sim/ftdi_sim.h"
#include "kmio/kmio.h"
#include "support/callback_sink.h"

namespace {

using Clock = std::chrono::steady_clock;

// The chip-ID library's answer differs from what the EEPROM words would give,
// so the ids below show which of the two the library used.
constexpr std::uint32_t kChipId = 3166195747u;
constexpr const char* kChip =
    "serial=KM1 description=\"Kalomet DRV2\" protocols=146 ee43=0x1234 ee44=0x5678 chipid=3166195747";

// The control functions of the simulator, looked up in the instance the
// library itself loaded: Windows hands out the module already loaded under
// that name.
class SimulatedDriver {
public:
    SimulatedDriver() : module_(::LoadLibraryA("ftd2xx.dll")) {
        if (module_ == nullptr) {
            throw std::runtime_error("the simulated driver does not load, error " +
                                     std::to_string(::GetLastError()));
        }
        reset_ = lookup<decltype(&FtdiSim_Reset)>("FtdiSim_Reset");
        addChip_ = lookup<decltype(&FtdiSim_AddChip)>("FtdiSim_AddChip");
        unplug_ = lookup<decltype(&FtdiSim_Unplug)>("FtdiSim_Unplug");
        feed_ = lookup<decltype(&FtdiSim_Feed)>("FtdiSim_Feed");
        openHandles_ = lookup<decltype(&FtdiSim_OpenHandles)>("FtdiSim_OpenHandles");
    }
    SimulatedDriver(const SimulatedDriver&) = delete;
    SimulatedDriver& operator=(const SimulatedDriver&) = delete;
    ~SimulatedDriver() { ::FreeLibrary(module_); }

    bool reset() { return reset_() == 0; }
    bool addChip(const char* line) { return addChip_(line) == 0; }
    bool unplug(const char* serial) { return unplug_(serial) == 0; }
    bool feed(const char* serial, const std::string& bytes) {
        return feed_(serial, bytes.data(), static_cast<std::uint32_t>(bytes.size())) == 0;
    }
    std::uint32_t openHandles() { return openHandles_(); }

private:
    template <typename F>
    F lookup(const char* name) {
        void* address = reinterpret_cast<void*>(::GetProcAddress(module_, name));
        if (address == nullptr) {
            throw std::runtime_error(std::string("the simulated driver lacks ") + name);
        }
        return reinterpret_cast<F>(address);
    }

    HMODULE module_;
    decltype(&FtdiSim_Reset) reset_ = nullptr;
    decltype(&FtdiSim_AddChip) addChip_ = nullptr;
    decltype(&FtdiSim_Unplug) unplug_ = nullptr;
    decltype(&FtdiSim_Feed) feed_ = nullptr;
    decltype(&FtdiSim_OpenHandles) openHandles_ = nullptr;
};

class UsbWin32 : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(sim.reset());
        ASSERT_TRUE(sim.addChip(kChip));
    }

    std::string enumerate(std::uint32_t type, const char* options) {
        char text[1024] = {};
        size_t size = sizeof text;
        const std::uint32_t result = KM_IO_EnumerateDevices(type, options, text, &size);
        return result == KM_IO_OK ? std::string(text) : "result " + std::to_string(result);
    }

    std::uint32_t open(std::uint32_t& handle, const char* locator, const char* options) {
        return KM_IO_Open(&handle, locator, options, &sink, kmiotest::Sink::onReceive,
                          kmiotest::Sink::onError);
    }

    SimulatedDriver sim;
    kmiotest::Sink sink;
};

TEST_F(UsbWin32, BothListingsShowTheChipWithTheChipIdLibrarysId) {
    EXPECT_EQ(enumerate(KM_IO_IFACE_USB, "include-sn\ninclude-id\nforce-rescan"),
              "usb:id:" + std::to_string(kChipId) + ":sn:KM1");
    EXPECT_EQ(enumerate(KM_IO_IFACE_ALL, "iface-type usb\nonly-locator\nforce-rescan"), "usb:sn:KM1");
    EXPECT_EQ(enumerate(KM_IO_IFACE_ALL, "iface-type usb\nonly-locator\nlocator-format-usb id\nforce-rescan"),
              "usb:id:" + std::to_string(kChipId));
}

// With "health-check 0" the receive thread waits without a time limit, so
// received bytes arrive only through the Win32 receive event, and close
// returns only because the stop event wakes the thread.
TEST_F(UsbWin32, EchoesThroughTheReceiveEventAndClosesAtOnce) {
    std::uint32_t handle = 0;
    ASSERT_EQ(open(handle, "usb:sn:KM1", "health-check 0"), KM_IO_OK);
    const std::string message = "hello through ftd2xx.dll";
    ASSERT_EQ(KM_IO_Send(handle, message.data(), message.size()), KM_IO_OK);
    ASSERT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= message.size(); }));
    ASSERT_TRUE(sim.feed("KM1", " and back"));
    ASSERT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= message.size() + 9; }));

    char id[32] = {};
    size_t size = sizeof id;
    EXPECT_EQ(KM_IO_GetProperty(handle, "ftdi-id", id, &size), KM_IO_OK);
    EXPECT_EQ(std::string(id), std::to_string(kChipId));

    // Let the thread use up any signal left over from the bytes above and
    // block in its wait, so that only the stop event can end it.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto start = Clock::now();
    EXPECT_EQ(KM_IO_Close(handle, 1), KM_IO_OK);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5)) << "close waits for no time-out";
    EXPECT_EQ(sim.openHandles(), 0u) << "the receive thread closed the chip";
    std::lock_guard lock(sink.mutex);
    EXPECT_EQ(std::string(sink.bytes.begin(), sink.bytes.end()), message + " and back");
    EXPECT_TRUE(sink.errors.empty());
}

// Unplugging signals nothing: the health-check time-out of the wait is what
// finds the chip gone.
TEST_F(UsbWin32, UnpluggedChipIsFoundLostByTheHealthCheck) {
    std::uint32_t handle = 0;
    ASSERT_EQ(open(handle, "usb:id:3166195747", "health-check 100"), KM_IO_OK);
    ASSERT_TRUE(sim.unplug("KM1"));
    EXPECT_TRUE(sink.waitUntil([&] { return !sink.errors.empty(); }));
    EXPECT_EQ(KM_IO_Close(handle, 1), KM_IO_OK);
    std::lock_guard lock(sink.mutex);
    ASSERT_EQ(sink.errors.size(), 1u);
    EXPECT_EQ(sink.errors[0], KM_IO_ERR_LINK_LOST);
}

TEST_F(UsbWin32, AnUnknownSerialIsNotFound) {
    std::uint32_t handle = 0;
    EXPECT_EQ(
        KM_IO_Open(&handle, "usb:sn:NOPE", "", &sink, kmiotest::Sink::onReceive, kmiotest::Sink::onError),
        KM_IO_ERR_NOT_FOUND);
    EXPECT_EQ(sim.openHandles(), 0u);
}

}  // namespace
