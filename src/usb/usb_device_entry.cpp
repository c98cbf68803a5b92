#include "usb/usb_device_entry.h"

#include <cstring>

#include "usb/d2xx_binding.h"

namespace kmio {

namespace {

template <std::size_t N>
std::string fieldText(const char (&field)[N]) {
    return std::string(field, ::strnlen(field, N));
}

}  // namespace

std::optional<std::string> UsbDeviceEntry::deviceDescription() const {
    if (!dualChannel()) {
        return description;
    }
    // Searched backwards from the second-to-last character: the blank must
    // be followed by 'A'. Only the last two characters are cut.
    if (description.size() < 2 || description.rfind(" A", description.size() - 2) == std::string::npos) {
        return std::nullopt;
    }
    return description.substr(0, description.size() - 2);
}

std::string UsbDeviceEntry::deviceSerialNumber() const {
    if (dualChannel() && !serialNumber.empty()) {
        return serialNumber.substr(0, serialNumber.size() - 1);
    }
    return serialNumber;
}

d2xx::FT_STATUS readDeviceList(const D2xxEntryPoints& api, std::vector<UsbDeviceEntry>& entries) {
    entries.clear();
    std::uint32_t count = 0;
    if (const d2xx::FT_STATUS status = api.FT_CreateDeviceInfoList(&count); status != d2xx::kOk) {
        return status;
    }
    if (count == 0) {
        return d2xx::kOk;
    }
    std::vector<d2xx::FT_DEVICE_LIST_INFO_NODE> nodes(count);
    if (const d2xx::FT_STATUS status = api.FT_GetDeviceInfoList(nodes.data(), &count); status != d2xx::kOk) {
        return status;
    }
    // The driver may report fewer nodes than it counted if a device left
    // between the two calls; never more than the array holds.
    nodes.resize(std::min<std::size_t>(count, nodes.size()));
    entries.reserve(nodes.size());
    for (const d2xx::FT_DEVICE_LIST_INFO_NODE& node : nodes) {
        UsbDeviceEntry entry;
        entry.flags = node.Flags;
        entry.type = node.Type;
        entry.id = node.ID;
        entry.locationId = node.LocId;
        entry.serialNumber = fieldText(node.SerialNumber);
        entry.description = fieldText(node.Description);
        entries.push_back(std::move(entry));
    }
    return d2xx::kOk;
}

}  // namespace kmio
