// Any EEPROM user area, description, device type and high-speed flag to a
// link profile. The result is one of the known profiles or "not supported",
// and a model of the "KMIO" tag rules predicts which: a tag with profile 1,
// 10, 11 or 12 decides alone; another number after the tag is not
// supported; no tag (or profile 0) leaves it to the chip and the
// product-name table, whatever else the user area holds.
//
// Input: byte 0 the device type, byte 1 the high-speed flag (bit 0) and how
// the description is chosen (bits 1-3: a row of the product-name table, or
// the input's own text), byte 2 the user area's length; the user area, then
// the description.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "options/property_record.h"
#include "usb/link_profile.h"

namespace {

using namespace kmio;

const LinkProfile kProfile1{500000, d2xx::kFlowNone, false};
const LinkProfile kProfile10{12000000, d2xx::kFlowRtsCts, false};
const LinkProfile kProfile11{0, d2xx::kFlowRtsCts, true};
const LinkProfile kProfile12{3000000, d2xx::kFlowNone, false};

bool same(const std::optional<LinkProfile>& a, const std::optional<LinkProfile>& b) {
    if (a.has_value() != b.has_value()) {
        return false;
    }
    return !a || (a->baudRate == b->baudRate && a->flowControl == b->flowControl &&
                  a->synchronousFifo == b->synchronousFifo);
}

// What profile 0 gives: the chip first, then the product-name table.
std::optional<LinkProfile> byChip(std::string_view description, std::uint32_t type, bool highSpeed) {
    if (highSpeed && type == d2xx::kDevice2232H) {
        return kProfile11;
    }
    const auto& names = usbProductNames();
    if (description == names[0] || description == names[3]) {
        return kProfile1;
    }
    if (description == names[1]) {
        return kProfile10;
    }
    return std::nullopt;
}

std::optional<LinkProfile> expected(std::span<const std::uint8_t> area, std::string_view description,
                                    std::uint32_t type, bool highSpeed) {
    const bool tagged =
        area.size() >= 5 && area[0] == 'K' && area[1] == 'M' && area[2] == 'I' && area[3] == 'O';
    if (!tagged || area[4] == 0) {
        return byChip(description, type, highSpeed);
    }
    switch (area[4]) {
        case 1:
            return kProfile1;
        case 10:
            return kProfile10;
        case 11:
            return kProfile11;
        case 12:
            return kProfile12;
        default:
            return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) {
        return 0;
    }
    // Small types most of the time, so that type 6 comes up often.
    const std::uint32_t type = data[0] < 240 ? data[0] % 12U : 0xFFFFFF00U | data[0];
    const bool highSpeed = (data[1] & 1U) != 0;
    const std::size_t areaSize = std::min<std::size_t>(data[2], size - 3);
    // Exactly sized copies, so that a read past either end is caught.
    const std::vector<std::uint8_t> area(data + 3, data + 3 + areaSize);
    std::string description(reinterpret_cast<const char*>(data) + 3 + areaSize, size - 3 - areaSize);
    const unsigned row = (data[1] >> 1U) & 7U;
    if (row < usbProductNames().size()) {
        description = usbProductNames()[row];
    }

    const std::optional<LinkProfile> profile = deriveLinkProfile(area, description, type, highSpeed);
    FUZZ_CHECK(!profile || same(profile, kProfile1) || same(profile, kProfile10) ||
               same(profile, kProfile11) || same(profile, kProfile12));
    FUZZ_CHECK(same(profile, expected(area, description, type, highSpeed)));
    // Only the tag and the byte after it count: the rest of the area never does.
    if (area.size() > 5) {
        const std::span<const std::uint8_t> head(area.data(), 5);
        FUZZ_CHECK(same(profile, deriveLinkProfile(head, description, type, highSpeed)));
    }
    return 0;
}
