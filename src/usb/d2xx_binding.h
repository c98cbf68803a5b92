#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/dynamic_library.h"
#include "usb/d2xx_types.h"

namespace kmio {

// The driver's entry points, named as the driver names them.
struct D2xxEntryPoints {
    d2xx::FT_CreateDeviceInfoList_t FT_CreateDeviceInfoList = nullptr;
    d2xx::FT_GetDeviceInfoList_t FT_GetDeviceInfoList = nullptr;
    d2xx::FT_Open_t FT_Open = nullptr;
    d2xx::FT_OpenEx_t FT_OpenEx = nullptr;
    d2xx::FT_Close_t FT_Close = nullptr;
    d2xx::FT_GetStatus_t FT_GetStatus = nullptr;
    d2xx::FT_Read_t FT_Read = nullptr;
    d2xx::FT_Write_t FT_Write = nullptr;
    d2xx::FT_Purge_t FT_Purge = nullptr;
    d2xx::FT_SetBaudRate_t FT_SetBaudRate = nullptr;
    d2xx::FT_SetDataCharacteristics_t FT_SetDataCharacteristics = nullptr;
    d2xx::FT_SetFlowControl_t FT_SetFlowControl = nullptr;
    d2xx::FT_SetTimeouts_t FT_SetTimeouts = nullptr;
    d2xx::FT_SetLatencyTimer_t FT_SetLatencyTimer = nullptr;
    d2xx::FT_SetBitMode_t FT_SetBitMode = nullptr;
    d2xx::FT_SetUSBParameters_t FT_SetUSBParameters = nullptr;
    d2xx::FT_SetEventNotification_t FT_SetEventNotification = nullptr;
    d2xx::FT_ReadEE_t FT_ReadEE = nullptr;
    d2xx::FT_EE_Read_t FT_EE_Read = nullptr;
    d2xx::FT_EE_UASize_t FT_EE_UASize = nullptr;
    d2xx::FT_EE_UARead_t FT_EE_UARead = nullptr;
    d2xx::FT_EE_UAWrite_t FT_EE_UAWrite = nullptr;
    // Null when the chip-ID library is absent; D2xxBinding then answers with
    // its built-in equivalents.
    d2xx::FTID_GetNumDevices_t FTID_GetNumDevices = nullptr;
    d2xx::FTID_GetChipIDFromHandle_t FTID_GetChipIDFromHandle = nullptr;
};

// The FTDI driver library and the chip-ID library, loaded at the first
// load() and never before, so that a program that never touches USB never
// loads the driver. A failed load is final: the driver is not looked for
// again in the life of the object, even if it is installed meanwhile (the
// process-wide binding therefore decides once per process).
//
// The driver library must load and export all 22 FT_ entry points. The
// chip-ID library is optional: FTDI published it only for Windows and 32-bit
// Linux. When it does not load, the chip id comes from a built-in equivalent
// that derives it from two EEPROM words (chip_id.h) and the device count
// from FT_CreateDeviceInfoList. When it does load, both of its entry points
// must be there.
class D2xxBinding {
public:
    // Library names as handed to DynamicLibrary: a bare name is searched on
    // the loader's path, a name with a folder is taken as it stands. With
    // chipIdRequired, a chip-ID library that does not load fails the load for
    // good, as a missing driver does.
    D2xxBinding(std::string driverLibrary, std::string chipIdLibrary, bool chipIdRequired = false);
    D2xxBinding(const D2xxBinding&) = delete;
    D2xxBinding& operator=(const D2xxBinding&) = delete;

    // Loads both libraries on the first call; true when the driver is usable.
    // Thread-safe.
    bool load();

    // The resolved entry points; valid once load() returned true.
    const D2xxEntryPoints& api() const noexcept { return api_; }

    // FTID_GetChipIDFromHandle of the chip-ID library, or its built-in
    // equivalent. Returns the driver status (0 on success).
    d2xx::FT_STATUS chipIdFromHandle(d2xx::FT_HANDLE handle, std::uint32_t& chipId) const;

    // FTID_GetNumDevices of the chip-ID library, or FT_CreateDeviceInfoList.
    d2xx::FT_STATUS numDevices(std::uint32_t& count) const;

    bool hasChipIdLibrary() const noexcept { return api_.FTID_GetChipIDFromHandle != nullptr; }

private:
    enum class State { NotTried, Loaded, Failed };

    bool resolveAll();

    const std::string driverName_;
    const std::string chipIdName_;
    const bool chipIdRequired_;
    std::mutex mutex_;
    State state_ = State::NotTried;
    DynamicLibrary driver_;
    DynamicLibrary chipId_;
    D2xxEntryPoints api_;
};

}  // namespace kmio
