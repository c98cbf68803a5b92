#pragma once

namespace kmio {

// The file names FTDI gives its driver and its chip-ID library on this
// system; the process-wide binding loads them by these names through the
// system loader's own search.
extern const char* const kD2xxDriverLibraryName;
extern const char* const kD2xxChipIdLibraryName;

}  // namespace kmio
