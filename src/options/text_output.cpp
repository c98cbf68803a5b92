#include "options/text_output.h"

#include <cstring>

#include "kmio/kmio.h"

namespace kmio {

std::uint32_t copyTextOut(std::string_view text, char* buffer, std::size_t* ioSize) {
    if (*ioSize < text.size() + 1) {
        *ioSize = text.size() + 1;
        return KM_IO_ERR_BUFFER_TOO_SMALL;
    }
    if (!text.empty()) {
        std::memcpy(buffer, text.data(), text.size());
    }
    buffer[text.size()] = '\0';
    *ioSize = text.size();
    return KM_IO_OK;
}

}  // namespace kmio
