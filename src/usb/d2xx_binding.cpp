#include "usb/d2xx_binding.h"

#include <utility>

#include "platform/scoped_critical_error_mode.h"
#include "usb/chip_id.h"
#include "usb/d2xx_library_names.h"

namespace kmio {

namespace {

// Looks up one entry point; false when it is missing, so that the caller can
// stop at the first missing name.
template <typename F>
bool resolve(const DynamicLibrary& library, const char* name, F& target) {
    // DynamicLibrary hands out every symbol as an object pointer (dlsym's
    // own type); converting it back to the function's type is how both
    // POSIX and Windows loaders are meant to be used.
    target = reinterpret_cast<F>(library.symbol(name));
    return target != nullptr;
}

}  // namespace

D2xxBinding::D2xxBinding(std::string driverLibrary, std::string chipIdLibrary, bool chipIdRequired)
    : driverName_(std::move(driverLibrary)),
      chipIdName_(std::move(chipIdLibrary)),
      chipIdRequired_(chipIdRequired) {}

bool D2xxBinding::load() {
    std::lock_guard lock(mutex_);
    if (state_ == State::NotTried) {
        {
            // A broken driver installation must fail the load, not stop the
            // host program with a dialog box.
            const ScopedCriticalErrorMode errorMode;
            if (!errorMode.active()) {
                return false;  // the system could not be asked; not final
            }
            driver_ = DynamicLibrary(driverName_);
            chipId_ = DynamicLibrary(chipIdName_);
        }
        state_ = driver_ && (chipId_ || !chipIdRequired_) && resolveAll() ? State::Loaded : State::Failed;
        if (state_ == State::Failed) {
            api_ = {};
            chipId_ = {};
            driver_ = {};
        }
    }
    return state_ == State::Loaded;
}

bool D2xxBinding::resolveAll() {
    const DynamicLibrary& d = driver_;
    D2xxEntryPoints& a = api_;
    // The table's order; && stops at the first name that is missing.
    const bool driverComplete =
        resolve(d, "FT_CreateDeviceInfoList", a.FT_CreateDeviceInfoList) &&
        resolve(d, "FT_GetDeviceInfoList", a.FT_GetDeviceInfoList) && resolve(d, "FT_Open", a.FT_Open) &&
        resolve(d, "FT_OpenEx", a.FT_OpenEx) && resolve(d, "FT_Close", a.FT_Close) &&
        resolve(d, "FT_GetStatus", a.FT_GetStatus) && resolve(d, "FT_Read", a.FT_Read) &&
        resolve(d, "FT_Write", a.FT_Write) && resolve(d, "FT_Purge", a.FT_Purge) &&
        resolve(d, "FT_SetBaudRate", a.FT_SetBaudRate) &&
        resolve(d, "FT_SetDataCharacteristics", a.FT_SetDataCharacteristics) &&
        resolve(d, "FT_SetFlowControl", a.FT_SetFlowControl) &&
        resolve(d, "FT_SetTimeouts", a.FT_SetTimeouts) &&
        resolve(d, "FT_SetLatencyTimer", a.FT_SetLatencyTimer) &&
        resolve(d, "FT_SetBitMode", a.FT_SetBitMode) &&
        resolve(d, "FT_SetUSBParameters", a.FT_SetUSBParameters) &&
        resolve(d, "FT_SetEventNotification", a.FT_SetEventNotification) &&
        resolve(d, "FT_ReadEE", a.FT_ReadEE) && resolve(d, "FT_EE_Read", a.FT_EE_Read) &&
        resolve(d, "FT_EE_UASize", a.FT_EE_UASize) && resolve(d, "FT_EE_UARead", a.FT_EE_UARead) &&
        resolve(d, "FT_EE_UAWrite", a.FT_EE_UAWrite);
    if (!driverComplete) {
        return false;
    }
    if (!chipId_) {
        return true;  // the built-in equivalents stand in
    }
    return resolve(chipId_, "FTID_GetNumDevices", a.FTID_GetNumDevices) &&
           resolve(chipId_, "FTID_GetChipIDFromHandle", a.FTID_GetChipIDFromHandle);
}

d2xx::FT_STATUS D2xxBinding::chipIdFromHandle(d2xx::FT_HANDLE handle, std::uint32_t& chipId) const {
    if (api_.FTID_GetChipIDFromHandle != nullptr) {
        return api_.FTID_GetChipIDFromHandle(handle, &chipId);
    }
    return readChipIdFromEeprom(api_, handle, chipId);
}

d2xx::FT_STATUS D2xxBinding::numDevices(std::uint32_t& count) const {
    if (api_.FTID_GetNumDevices != nullptr) {
        return api_.FTID_GetNumDevices(&count);
    }
    return api_.FT_CreateDeviceInfoList(&count);
}

}  // namespace kmio
