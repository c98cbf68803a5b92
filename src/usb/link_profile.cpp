#include "usb/link_profile.h"

#include "options/property_record.h"
#include "usb/d2xx_binding.h"

namespace kmio {

namespace {

constexpr std::string_view kProfileTag = "KMIO";
constexpr std::uint8_t kNotSupported = 255;

LinkProfile serialLink(std::uint32_t baudRate, std::uint16_t flowControl) {
    return LinkProfile{baudRate, flowControl, false};
}

LinkProfile fifoLink() {
    return LinkProfile{0, d2xx::kFlowRtsCts, true};
}

std::uint8_t profileNumber(std::span<const std::uint8_t> userArea) {
    if (userArea.size() < kProfileTag.size() + 1 ||
        std::string_view(reinterpret_cast<const char*>(userArea.data()), kProfileTag.size()) != kProfileTag) {
        return 0;
    }
    const std::uint8_t number = userArea[kProfileTag.size()];
    switch (number) {
        case 0:
        case 1:
        case 10:
        case 11:
        case 12:
            return number;
        default:
            return kNotSupported;
    }
}

}  // namespace

ProductNameRow productNameRow(std::string_view description) {
    const auto& names = usbProductNames();
    for (std::size_t row = 0; row < names.size(); ++row) {
        if (names[row] == description) {
            return static_cast<ProductNameRow>(row + 1);
        }
    }
    return ProductNameRow::None;
}

std::optional<LinkProfile> deriveLinkProfile(std::span<const std::uint8_t> userArea,
                                             std::string_view description, std::uint32_t deviceType,
                                             bool highSpeed) {
    switch (profileNumber(userArea)) {
        case 1:
            return serialLink(500000, d2xx::kFlowNone);
        case 10:
            return serialLink(12000000, d2xx::kFlowRtsCts);
        case 11:
            return fifoLink();
        case 12:
            return serialLink(3000000, d2xx::kFlowNone);
        case 0:
            break;
        default:
            return std::nullopt;
    }
    if (highSpeed && deviceType == d2xx::kDevice2232H) {
        return fifoLink();
    }
    switch (productNameRow(description)) {
        case ProductNameRow::Serial500kProtocol146:
        case ProductNameRow::Serial500kProtocol147:
            return serialLink(500000, d2xx::kFlowNone);
        case ProductNameRow::Serial12M:
            return serialLink(12000000, d2xx::kFlowRtsCts);
        case ProductNameRow::ProbeDetect:
        case ProductNameRow::None:
            break;
    }
    return std::nullopt;
}

d2xx::FT_STATUS readUserArea(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle,
                             std::vector<std::uint8_t>& area) {
    area.clear();
    std::uint32_t size = 0;
    if (const d2xx::FT_STATUS status = api.FT_EE_UASize(handle, &size); status != d2xx::kOk) {
        return status;
    }
    area.resize(size);
    std::uint32_t read = 0;
    if (size > 0) {
        if (const d2xx::FT_STATUS status = api.FT_EE_UARead(handle, area.data(), size, &read);
            status != d2xx::kOk) {
            return status;
        }
    }
    area.resize(std::min(read, size));
    return d2xx::kOk;
}

}  // namespace kmio
