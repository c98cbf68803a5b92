#pragma once

namespace kmio {

// The file names FTDI gives its driver and its chip-ID library on this
// system; the process-wide binding loads them by these names through the
// system loader's own search.
extern const char* const kD2xxDriverLibraryName;
extern const char* const kD2xxChipIdLibraryName;

// Whether the driver is unusable without the chip-ID library. On Windows FTDI
// ships it beside the driver, and a missing one is a broken installation; on
// 64-bit Linux it was never published, so a built-in equivalent stands in.
extern const bool kD2xxChipIdLibraryRequired;

}  // namespace kmio
