#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "../../tools/ftdi-sim/ftdi_sim.h"
#include "platform/dynamic_library.h"
#include "usb/d2xx_binding.h"

namespace kmiotest {

// The driver entry points of the simulator, for tests that call the driver
// directly (the chip-ID members stay null).
using FtdiSimDriver = kmio::D2xxEntryPoints;

// The simulated FTDI driver, loaded by the driver's own name
// ("libftd2xx.so", found through LD_LIBRARY_PATH exactly as the library
// finds it), so the test and the library share one instance. Throws
// std::runtime_error when the simulator cannot be loaded. Constructing it
// does not reset the simulator: call reset() for a clean start.
class FtdiSimControl {
public:
    FtdiSimControl() {
        bind(driver_.FT_CreateDeviceInfoList, "FT_CreateDeviceInfoList");
        bind(driver_.FT_GetDeviceInfoList, "FT_GetDeviceInfoList");
        bind(driver_.FT_Open, "FT_Open");
        bind(driver_.FT_OpenEx, "FT_OpenEx");
        bind(driver_.FT_Close, "FT_Close");
        bind(driver_.FT_GetStatus, "FT_GetStatus");
        bind(driver_.FT_Read, "FT_Read");
        bind(driver_.FT_Write, "FT_Write");
        bind(driver_.FT_Purge, "FT_Purge");
        bind(driver_.FT_SetBaudRate, "FT_SetBaudRate");
        bind(driver_.FT_SetDataCharacteristics, "FT_SetDataCharacteristics");
        bind(driver_.FT_SetFlowControl, "FT_SetFlowControl");
        bind(driver_.FT_SetTimeouts, "FT_SetTimeouts");
        bind(driver_.FT_SetLatencyTimer, "FT_SetLatencyTimer");
        bind(driver_.FT_SetBitMode, "FT_SetBitMode");
        bind(driver_.FT_SetUSBParameters, "FT_SetUSBParameters");
        bind(driver_.FT_SetEventNotification, "FT_SetEventNotification");
        bind(driver_.FT_ReadEE, "FT_ReadEE");
        bind(driver_.FT_EE_Read, "FT_EE_Read");
        bind(driver_.FT_EE_UASize, "FT_EE_UASize");
        bind(driver_.FT_EE_UARead, "FT_EE_UARead");
        bind(driver_.FT_EE_UAWrite, "FT_EE_UAWrite");
    }

    // The driver entry points, for calling the simulated driver directly.
    const FtdiSimDriver& driver() const { return driver_; }

    // Each returns true when the simulator accepted the request.
    bool reset() const { return reset_() == 0; }
    bool addChip(const std::string& line) const { return addChip_(line.c_str()) == 0; }
    bool unplug(const std::string& serial) const { return unplug_(serial.c_str()) == 0; }
    bool feed(const std::string& serial, std::string_view bytes) const {
        return feed_(serial.c_str(), bytes.data(), static_cast<std::uint32_t>(bytes.size())) == 0;
    }
    bool signalEvent(const std::string& serial) const { return signalEvent_(serial.c_str()) == 0; }
    bool setEcho(const std::string& serial, bool on) const {
        return setEcho_(serial.c_str(), on ? 1 : 0) == 0;
    }
    bool stream(const std::string& serial, std::uint64_t bytes) const {
        return stream_(serial.c_str(), bytes) == 0;
    }
    // The next `times` calls of the entry point return `status`; -1 = until
    // clearFailure().
    bool fail(const std::string& entryPoint, std::uint32_t status, int times = 1) const {
        return fail_(entryPoint.c_str(), status, times) == 0;
    }
    bool clearFailure(const std::string& entryPoint) const { return fail_(entryPoint.c_str(), 0, 0) == 0; }
    bool clearCallLog(const std::string& serial) const { return clearCallLog_(serial.c_str()) == 0; }
    std::uint32_t openHandles() const { return openHandles_(); }

    // Every byte the host wrote (with echo off) not taken yet, oldest first.
    std::string takeWritten(const std::string& serial) const {
        std::string taken;
        char chunk[65536];
        while (const std::uint32_t n = takeWritten_(serial.c_str(), chunk, sizeof chunk)) {
            taken.append(chunk, n);
        }
        return taken;
    }

    // The chip's call log, one call per line ("" for an unknown serial).
    std::string callLog(const std::string& serial) const {
        std::string log(256, '\0');
        for (;;) {
            const std::size_t length = callLog_(serial.c_str(), log.data(), log.size());
            if (length < log.size()) {
                log.resize(length);
                return log;
            }
            log.resize(length);
        }
    }

private:
    template <typename F>
    F symbol(const char* name) const {
        if (!library_) {
            throw std::runtime_error("cannot load libftd2xx.so: " + library_.error());
        }
        void* address = library_.symbol(name);
        if (address == nullptr) {
            throw std::runtime_error(std::string("missing symbol ") + name);
        }
        return reinterpret_cast<F>(address);
    }
    template <typename F>
    void bind(F& function, const char* name) const {
        function = symbol<F>(name);
    }

    const kmio::DynamicLibrary library_{"libftd2xx.so"};
    decltype(&FtdiSim_Reset) reset_ = symbol<decltype(reset_)>("FtdiSim_Reset");
    decltype(&FtdiSim_AddChip) addChip_ = symbol<decltype(addChip_)>("FtdiSim_AddChip");
    decltype(&FtdiSim_Unplug) unplug_ = symbol<decltype(unplug_)>("FtdiSim_Unplug");
    decltype(&FtdiSim_Feed) feed_ = symbol<decltype(feed_)>("FtdiSim_Feed");
    decltype(&FtdiSim_SignalEvent) signalEvent_ = symbol<decltype(signalEvent_)>("FtdiSim_SignalEvent");
    decltype(&FtdiSim_TakeWritten) takeWritten_ = symbol<decltype(takeWritten_)>("FtdiSim_TakeWritten");
    decltype(&FtdiSim_SetEcho) setEcho_ = symbol<decltype(setEcho_)>("FtdiSim_SetEcho");
    decltype(&FtdiSim_Stream) stream_ = symbol<decltype(stream_)>("FtdiSim_Stream");
    decltype(&FtdiSim_Fail) fail_ = symbol<decltype(fail_)>("FtdiSim_Fail");
    decltype(&FtdiSim_CallLog) callLog_ = symbol<decltype(callLog_)>("FtdiSim_CallLog");
    decltype(&FtdiSim_ClearCallLog) clearCallLog_ = symbol<decltype(clearCallLog_)>("FtdiSim_ClearCallLog");
    decltype(&FtdiSim_OpenHandles) openHandles_ = symbol<decltype(openHandles_)>("FtdiSim_OpenHandles");
    FtdiSimDriver driver_{};
};

}  // namespace kmiotest
