#include "text_buffer.h"

#include <kmio/kmio.h>

#include <algorithm>
#include <vector>

namespace kmiotool {

std::uint32_t readLibraryText(const std::function<std::uint32_t(char* buffer, std::size_t* ioSize)>& call,
                              std::string& text) {
    constexpr int kAttempts = 8;
    std::vector<char> buffer(4096);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        std::size_t size = buffer.size();
        std::uint32_t code = call(buffer.data(), &size);
        if (code == KM_IO_OK) {
            text.assign(buffer.data(), std::min(size, buffer.size()));
            return code;
        }
        if (code != KM_IO_ERR_BUFFER_TOO_SMALL) {
            return code;
        }
        // Never shrink, and always grow, so that a wrong size cannot loop.
        buffer.resize(std::max(size, buffer.size() * 2));
    }
    return KM_IO_ERR_BUFFER_TOO_SMALL;
}

}  // namespace kmiotool
