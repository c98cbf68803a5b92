#include "usb/d2xx_library_names.h"

namespace kmio {

const char* const kD2xxDriverLibraryName = "ftd2xx.dll";
const char* const kD2xxChipIdLibraryName = "FTChipID.dll";
const bool kD2xxChipIdLibraryRequired = true;

}  // namespace kmio
