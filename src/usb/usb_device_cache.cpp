#include "usb/usb_device_cache.h"
#include "options/list_filter.h"

#include <algorithm>
#include <utility>

#include "kmio/kmio.h"
#include "usb/d2xx_binding.h"
#include "usb/ftdi_handle.h"
#include "usb/protocol_probe.h"

namespace kmio {

UsbDeviceCache::UsbDeviceCache(D2xxBinding& binding, Clock now) : binding_(binding), now_(std::move(now)) {}

std::uint32_t UsbDeviceCache::scan(bool force) {
    const auto now = now_();
    if (!force && lastScan_ && now - *lastScan_ < kFreshness) {
        return KM_IO_OK;
    }
    lastScan_ = now;
    if (readDeviceList(binding_.api(), entries_) != d2xx::kOk) {
        entries_.clear();
        return KM_IO_ERR_ENUMERATION_FAILED;
    }
    return KM_IO_OK;
}

std::vector<SelectedUsbDevice> UsbDeviceCache::select(const UsbDeviceFilter& filter) const {
    std::vector<SelectedUsbDevice> selected;
    for (std::size_t index = 0; index < entries_.size(); ++index) {
        const UsbDeviceEntry& entry = entries_[index];
        if (entry.type == d2xx::kDeviceUnknown || (filter.onlyAvailable && entry.opened())) {
            continue;
        }
        std::optional<std::string> description = entry.deviceDescription();
        if (!description || !admits(filter.productNames, *description) ||
            !admits(filter.vendorIds, std::uint32_t{entry.vendorId()}) ||
            !admits(filter.productIds, std::uint32_t{entry.productId()})) {
            continue;
        }
        selected.push_back(SelectedUsbDevice{index, std::move(*description)});
    }
    return selected;
}

void UsbDeviceCache::probe(const std::vector<SelectedUsbDevice>& devices) {
    for (const SelectedUsbDevice& device : devices) {
        UsbDeviceEntry& entry = entries_.at(device.index);
        entry.protocolIds =
            probeProtocolIds(binding_.api(), static_cast<int>(device.index), entry, device.description)
                .protocolIds;
    }
}

std::uint32_t UsbDeviceCache::chipId(std::size_t index) {
    UsbDeviceEntry& entry = entries_.at(index);
    if (!entry.chipIdRead) {
        entry.chipIdRead = true;
        d2xx::FT_HANDLE raw = nullptr;
        if (binding_.api().FT_Open(static_cast<int>(index), &raw) == d2xx::kOk) {
            const FtdiHandle handle(binding_.api(), raw);
            std::uint32_t id = 0;
            if (binding_.chipIdFromHandle(handle.get(), id) == d2xx::kOk) {
                entry.chipId = id;
            }
        }
    }
    return entry.chipId;
}

}  // namespace kmio
