#include "usb/usb_locator.h"

#include <algorithm>
#include <vector>

#include "kmio/kmio.h"
#include "options/locator.h"

namespace kmio {

namespace {

bool allDigits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::optional<UsbDeviceChoice> parseUsbLocator(std::string_view locator) {
    const std::vector<std::string> tokens = tokenizeLocator(locator);
    if (tokens.size() == 3 && tokens[0] == "usb" && (tokens[1] == "sn" || tokens[1] == "id")) {
        return UsbDeviceChoice{
            tokens[1] == "sn" ? UsbDeviceChoice::By::SerialNumber : UsbDeviceChoice::By::ChipId, tokens[2],
            0};
    }
    if (tokens.size() == 2 && tokens[0] == "usb" && allDigits(tokens[1])) {
        UsbDeviceChoice choice{UsbDeviceChoice::By::Position, tokens[1], 0};
        // A number too long for 64 bits is past the end of any list.
        choice.position = tokens[1].size() > 18 ? UINT64_MAX : std::stoull(tokens[1]);
        return choice;
    }
    return std::nullopt;
}

std::uint32_t serialNumberOfChipId(std::string_view listing, std::string_view chipId, std::string& serial) {
    const std::string idField = ":id:" + std::string(chipId);
    for (std::size_t start = 0; start <= listing.size();) {
        const std::size_t end = std::min(listing.find('\n', start), listing.size());
        const std::string_view line = listing.substr(start, end - start);
        start = end + 1;
        const std::size_t at = line.find(idField);
        const std::size_t after = at + idField.size();
        if (at == std::string_view::npos || (after < line.size() && line[after] != ':')) {
            continue;
        }
        const std::size_t sn = line.find(":sn:", after);
        if (sn == std::string_view::npos || sn + 4 == line.size()) {
            return KM_IO_ERR_ENUMERATION_FAILED;
        }
        serial = line.substr(sn + 4);
        return KM_IO_OK;
    }
    return KM_IO_ERR_NOT_FOUND;
}

}  // namespace kmio
