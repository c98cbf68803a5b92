#include "usb/chip_setup.h"

#include <chrono>
#include <thread>

namespace kmio {

bool enterSynchronousFifo(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle) {
    constexpr std::chrono::milliseconds kBitModeResetPause{10};
    if (api.FT_SetBitMode(handle, 0xFF, d2xx::kBitModeReset) != d2xx::kOk) {
        return false;
    }
    std::this_thread::sleep_for(kBitModeResetPause);
    return api.FT_SetBitMode(handle, 0xFF, d2xx::kBitModeSyncFifo) == d2xx::kOk;
}

}  // namespace kmio
