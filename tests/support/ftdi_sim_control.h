#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "../../tools/ftdi-sim/ftdi_sim.h"
#include "usb/d2xx_types.h"

namespace kmiotest {

namespace ftdisim_detail {

// A library loaded by name through the loader's search path, closed on
// destruction; symbols are looked up as the given function pointer type.
class LoadedLibrary {
public:
    explicit LoadedLibrary(const char* name) : handle_(::dlopen(name, RTLD_NOW)) {
        if (handle_ == nullptr) {
            const char* error = ::dlerror();
            throw std::runtime_error(std::string("cannot load ") + name + ": " + (error ? error : "?"));
        }
    }
    ~LoadedLibrary() { ::dlclose(handle_); }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    template <typename F>
    F symbol(const char* name) const {
        void* address = ::dlsym(handle_, name);
        if (address == nullptr) {
            throw std::runtime_error(std::string("missing symbol ") + name);
        }
        return reinterpret_cast<F>(address);
    }

private:
    void* handle_;
};

}  // namespace ftdisim_detail

// The driver entry points of the simulator, for tests that call the driver
// directly. Members are named after the entry points.
struct FtdiSimDriver {
    kmio::d2xx::FT_CreateDeviceInfoList_t FT_CreateDeviceInfoList;
    kmio::d2xx::FT_GetDeviceInfoList_t FT_GetDeviceInfoList;
    kmio::d2xx::FT_Open_t FT_Open;
    kmio::d2xx::FT_OpenEx_t FT_OpenEx;
    kmio::d2xx::FT_Close_t FT_Close;
    kmio::d2xx::FT_GetStatus_t FT_GetStatus;
    kmio::d2xx::FT_Read_t FT_Read;
    kmio::d2xx::FT_Write_t FT_Write;
    kmio::d2xx::FT_Purge_t FT_Purge;
    kmio::d2xx::FT_SetBaudRate_t FT_SetBaudRate;
    kmio::d2xx::FT_SetDataCharacteristics_t FT_SetDataCharacteristics;
    kmio::d2xx::FT_SetFlowControl_t FT_SetFlowControl;
    kmio::d2xx::FT_SetTimeouts_t FT_SetTimeouts;
    kmio::d2xx::FT_SetLatencyTimer_t FT_SetLatencyTimer;
    kmio::d2xx::FT_SetBitMode_t FT_SetBitMode;
    kmio::d2xx::FT_SetUSBParameters_t FT_SetUSBParameters;
    kmio::d2xx::FT_SetEventNotification_t FT_SetEventNotification;
    kmio::d2xx::FT_ReadEE_t FT_ReadEE;
    kmio::d2xx::FT_EE_Read_t FT_EE_Read;
    kmio::d2xx::FT_EE_UASize_t FT_EE_UASize;
    kmio::d2xx::FT_EE_UARead_t FT_EE_UARead;
    kmio::d2xx::FT_EE_UAWrite_t FT_EE_UAWrite;
};

// The simulated FTDI driver, loaded by the driver's own name
// ("libftd2xx.so", found through LD_LIBRARY_PATH exactly as the library
// finds it), so the test and the library share one instance. Throws
// std::runtime_error when the simulator cannot be loaded. Constructing it
// does not reset the simulator: call reset() for a clean start.
class FtdiSimControl {
public:
    FtdiSimControl()
        : library_("libftd2xx.so"),
          reset_(library_.symbol<decltype(&FtdiSim_Reset)>("FtdiSim_Reset")),
          addChip_(library_.symbol<decltype(&FtdiSim_AddChip)>("FtdiSim_AddChip")),
          unplug_(library_.symbol<decltype(&FtdiSim_Unplug)>("FtdiSim_Unplug")),
          feed_(library_.symbol<decltype(&FtdiSim_Feed)>("FtdiSim_Feed")),
          signalEvent_(library_.symbol<decltype(&FtdiSim_SignalEvent)>("FtdiSim_SignalEvent")),
          takeWritten_(library_.symbol<decltype(&FtdiSim_TakeWritten)>("FtdiSim_TakeWritten")),
          setEcho_(library_.symbol<decltype(&FtdiSim_SetEcho)>("FtdiSim_SetEcho")),
          stream_(library_.symbol<decltype(&FtdiSim_Stream)>("FtdiSim_Stream")),
          fail_(library_.symbol<decltype(&FtdiSim_Fail)>("FtdiSim_Fail")),
          callLog_(library_.symbol<decltype(&FtdiSim_CallLog)>("FtdiSim_CallLog")),
          clearCallLog_(library_.symbol<decltype(&FtdiSim_ClearCallLog)>("FtdiSim_ClearCallLog")),
          openHandles_(library_.symbol<decltype(&FtdiSim_OpenHandles)>("FtdiSim_OpenHandles")) {
        using namespace kmio::d2xx;
        driver_ = FtdiSimDriver{
            library_.symbol<FT_CreateDeviceInfoList_t>("FT_CreateDeviceInfoList"),
            library_.symbol<FT_GetDeviceInfoList_t>("FT_GetDeviceInfoList"),
            library_.symbol<FT_Open_t>("FT_Open"),
            library_.symbol<FT_OpenEx_t>("FT_OpenEx"),
            library_.symbol<FT_Close_t>("FT_Close"),
            library_.symbol<FT_GetStatus_t>("FT_GetStatus"),
            library_.symbol<FT_Read_t>("FT_Read"),
            library_.symbol<FT_Write_t>("FT_Write"),
            library_.symbol<FT_Purge_t>("FT_Purge"),
            library_.symbol<FT_SetBaudRate_t>("FT_SetBaudRate"),
            library_.symbol<FT_SetDataCharacteristics_t>("FT_SetDataCharacteristics"),
            library_.symbol<FT_SetFlowControl_t>("FT_SetFlowControl"),
            library_.symbol<FT_SetTimeouts_t>("FT_SetTimeouts"),
            library_.symbol<FT_SetLatencyTimer_t>("FT_SetLatencyTimer"),
            library_.symbol<FT_SetBitMode_t>("FT_SetBitMode"),
            library_.symbol<FT_SetUSBParameters_t>("FT_SetUSBParameters"),
            library_.symbol<FT_SetEventNotification_t>("FT_SetEventNotification"),
            library_.symbol<FT_ReadEE_t>("FT_ReadEE"),
            library_.symbol<FT_EE_Read_t>("FT_EE_Read"),
            library_.symbol<FT_EE_UASize_t>("FT_EE_UASize"),
            library_.symbol<FT_EE_UARead_t>("FT_EE_UARead"),
            library_.symbol<FT_EE_UAWrite_t>("FT_EE_UAWrite"),
        };
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
    bool feed(const std::string& serial, const void* data, std::uint32_t length) const {
        return feed_(serial.c_str(), data, length) == 0;
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
    ftdisim_detail::LoadedLibrary library_;
    decltype(&FtdiSim_Reset) reset_;
    decltype(&FtdiSim_AddChip) addChip_;
    decltype(&FtdiSim_Unplug) unplug_;
    decltype(&FtdiSim_Feed) feed_;
    decltype(&FtdiSim_SignalEvent) signalEvent_;
    decltype(&FtdiSim_TakeWritten) takeWritten_;
    decltype(&FtdiSim_SetEcho) setEcho_;
    decltype(&FtdiSim_Stream) stream_;
    decltype(&FtdiSim_Fail) fail_;
    decltype(&FtdiSim_CallLog) callLog_;
    decltype(&FtdiSim_ClearCallLog) clearCallLog_;
    decltype(&FtdiSim_OpenHandles) openHandles_;
    FtdiSimDriver driver_{};
};

// The simulated chip-ID library ("libftchipid.so"), for tests that put its
// folder on the search path. Throws std::runtime_error when it cannot load.
class FtdiSimChipId {
public:
    FtdiSimChipId()
        : library_("libftchipid.so"),
          FTID_GetNumDevices(library_.symbol<kmio::d2xx::FTID_GetNumDevices_t>("FTID_GetNumDevices")),
          FTID_GetChipIDFromHandle(
              library_.symbol<kmio::d2xx::FTID_GetChipIDFromHandle_t>("FTID_GetChipIDFromHandle")) {}

private:
    ftdisim_detail::LoadedLibrary library_;

public:
    const kmio::d2xx::FTID_GetNumDevices_t FTID_GetNumDevices;
    const kmio::d2xx::FTID_GetChipIDFromHandle_t FTID_GetChipIDFromHandle;
};

}  // namespace kmiotest
