#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "usb/usb_device_entry.h"

namespace kmio {

class D2xxBinding;

// Which devices an enumeration keeps. Empty lists keep everything.
struct UsbDeviceFilter {
    bool onlyAvailable = true;
    std::vector<std::string> productNames;
    std::vector<std::uint32_t> vendorIds;
    std::vector<std::uint32_t> productIds;
};

// A device that passed the filters: its place in the driver's list and the
// description it is known by (a dual-channel chip's without " A").
struct SelectedUsbDevice {
    std::size_t index = 0;
    std::string description;
};

// The driver's device list as last scanned, kept for 1500 ms so that
// repeated enumerations and opens do not rescan the bus, together with the
// USB mutex that serialises every scan, probe, listing and USB open. Every
// member except mutex() expects the caller to hold that mutex.
class UsbDeviceCache {
public:
    static constexpr std::chrono::milliseconds kFreshness{1500};

    explicit UsbDeviceCache(D2xxBinding& binding, Clock now = steadyClock());
    UsbDeviceCache(const UsbDeviceCache&) = delete;
    UsbDeviceCache& operator=(const UsbDeviceCache&) = delete;

    std::mutex& mutex() noexcept { return mutex_; }
    D2xxBinding& binding() noexcept { return binding_; }

    // Rescans unless the last scan is younger than 1500 ms and force is
    // false. A rescan clears what earlier scans learned (chip ids, protocol
    // ids). KM_IO_OK, or KM_IO_ERR_ENUMERATION_FAILED when the driver cannot
    // build or hand out its list; the old entries are gone then too.
    std::uint32_t scan(bool force);

    // Filters the scanned devices in list order (unknown device type, opened
    // devices, the dual-channel rule, product name, vendor id, product id).
    // Makes no driver call.
    std::vector<SelectedUsbDevice> select(const UsbDeviceFilter& filter) const;

    // Runs the protocol-id probe of each selected device, in order, and
    // records its protocol ids in its entry; a failed probe leaves none (the
    // device is still listed). Both listings probe what they select.
    void probe(const std::vector<SelectedUsbDevice>& devices);

    // The chip id of an entry, read (by opening the device) at most once per
    // scan; 0 when it cannot be read.
    std::uint32_t chipId(std::size_t index);

    const std::vector<UsbDeviceEntry>& entries() const noexcept { return entries_; }

private:
    D2xxBinding& binding_;
    Clock now_;
    std::mutex mutex_;
    std::optional<std::chrono::steady_clock::time_point> lastScan_;
    std::vector<UsbDeviceEntry> entries_;
};

}  // namespace kmio
