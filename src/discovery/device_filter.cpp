#include "discovery/device_filter.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "platform/steady_clock.h"

namespace kalometnd {

bool sameDevice(const DiscoverInfo& a, const DiscoverInfo& b) {
    return a.serialNumber == b.serialNumber && a.ipAddress == b.ipAddress && a.port == b.port &&
           a.selector == b.selector && a.protocolId == b.protocolId;
}

DeviceFilter::DeviceFilter(std::shared_ptr<Host> host, Criteria criteria, Callbacks callbacks)
    : host_(std::move(host)), criteria_(criteria), callbacks_(std::move(callbacks)) {
    listenerId_ = host_->addListener([this](const DiscoverInfo& record) {
        receive(record);
        return true;
    });
}

DeviceFilter::~DeviceFilter() {
    host_->removeListener(listenerId_);
}

void DeviceFilter::receive(const DiscoverInfo& record) {
    std::optional<DiscoverInfo> added;
    std::optional<DiscoverInfo> changed;
    std::optional<DiscoverInfo> removed;
    {
        const std::lock_guard lock(mutex_);
        if (criteria_.selector != 0xFFFFFFFF && criteria_.selector != record.selector) {
            return;
        }
        if (criteria_.protocolId != 0 && criteria_.protocolId != record.protocolId) {
            return;
        }
        const auto found = std::find_if(devices_.begin(), devices_.end(),
                                        [&](const DiscoverInfo& known) { return sameDevice(known, record); });
        if (found != devices_.end()) {
            if (criteria_.onlyAvailable && !record.available) {
                removed = *found;
                devices_.erase(found);
            } else {
                found->timestamp = record.timestamp;
                if (found->available != record.available) {
                    found->available = record.available;
                    changed = *found;
                }
            }
        } else if (!criteria_.onlyAvailable || record.available) {
            devices_.push_back(record);
            added = record;
        }
    }
    if (added && callbacks_.onAdded) {
        callbacks_.onAdded(*added);
    }
    if (changed && callbacks_.onChanged) {
        callbacks_.onChanged(*changed, Change::AvailabilityChanged);
    }
    if (removed && callbacks_.onRemoved) {
        callbacks_.onRemoved(*removed);
    }
}

std::vector<DiscoverInfo> DeviceFilter::devices() const {
    const std::lock_guard lock(mutex_);
    return devices_;
}

void DeviceFilter::discover(int timeoutMs, std::string_view serialNumber) {
    std::int64_t start = 0;
    {
        const std::lock_guard lock(mutex_);
        start = kmio::steadyNowNs();
    }
    host_->discover(criteria_.selector, serialNumber);
    const std::int64_t end = start + static_cast<std::int64_t>(timeoutMs) * 1'000'000;
    for (std::int64_t now = kmio::steadyNowNs(); now < end; now = kmio::steadyNowNs()) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(end - now));
    }
    // Each silent device is reported right after it leaves the list, outside the lock.
    for (;;) {
        DiscoverInfo silent;
        {
            const std::lock_guard lock(mutex_);
            const auto found = std::find_if(devices_.begin(), devices_.end(), [&](const DiscoverInfo& known) {
                return known.timestamp < start;
            });
            if (found == devices_.end()) {
                return;
            }
            silent = std::move(*found);
            devices_.erase(found);
        }
        if (callbacks_.onRemoved) {
            callbacks_.onRemoved(silent);
        }
    }
}

}  // namespace kalometnd
