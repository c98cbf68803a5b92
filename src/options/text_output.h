#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kmio {

// Copies text to a caller buffer under the out-buffer convention: with room
// for the text and a NUL, copies both, sets *ioSize to the length and returns
// KM_IO_OK; otherwise sets *ioSize to length + 1, copies nothing and returns
// KM_IO_ERR_BUFFER_TOO_SMALL.
std::uint32_t copyTextOut(std::string_view text, char* buffer, std::size_t* ioSize);

}  // namespace kmio
