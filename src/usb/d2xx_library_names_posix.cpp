#include "usb/d2xx_library_names.h"

namespace kmio {

const char* const kD2xxDriverLibraryName = "libftd2xx.so";
const char* const kD2xxChipIdLibraryName = "libftchipid.so";

}  // namespace kmio
