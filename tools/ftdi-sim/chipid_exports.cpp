// The chip-ID library's two entry points (libftchipid.so), answered by the
// simulated driver it is linked to.

#include <type_traits>

#include "ftdi_sim.h"
#include "usb/d2xx_types.h"

#if defined(_WIN32)
#define FTID_EXPORT __declspec(dllexport)
#else
#define FTID_EXPORT __attribute__((visibility("default")))
#endif

using namespace kmio::d2xx;

extern "C" {

FTID_EXPORT FT_STATUS KMIO_D2XX_CALL FTID_GetNumDevices(std::uint32_t* count) {
    return FtdiSim_ChipCount(count);
}

FTID_EXPORT FT_STATUS KMIO_D2XX_CALL FTID_GetChipIDFromHandle(FT_HANDLE handle, std::uint32_t* chipId) {
    return FtdiSim_ChipIdOfHandle(handle, chipId);
}

}  // extern "C"

static_assert(std::is_same_v<decltype(&FTID_GetNumDevices), FTID_GetNumDevices_t>);
static_assert(std::is_same_v<decltype(&FTID_GetChipIDFromHandle), FTID_GetChipIDFromHandle_t>);
