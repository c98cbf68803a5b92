#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace kmiotool {

// Reads a text from a library function that follows the out-buffer
// convention: when it answers "buffer too small" with the size it needs, the
// call is repeated with a buffer of that size. The text may grow between two
// calls (a device appears), so this retries a few times.
std::uint32_t readLibraryText(const std::function<std::uint32_t(char* buffer, std::size_t* ioSize)>& call,
                              std::string& text);

}  // namespace kmiotool
