#include "usb/d2xx_library_names.h"

namespace kmio {

const char* const kD2xxDriverLibraryName = "libftd2xx.so";
const char* const kD2xxChipIdLibraryName = "libftchipid.so";
const bool kD2xxChipIdLibraryRequired = false;

}  // namespace kmio
