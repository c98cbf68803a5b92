#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "discovery/flags.h"
#include "discovery/host.h"

namespace kalometnd {

// Keeps the list of devices that a host hears of and that match the
// criteria, and reports additions, changes and removals. A discovery pass
// asks the devices to answer and then drops those that stayed silent.
//
// Callbacks run outside the filter's lock, on the host's receiving thread
// (additions, changes, removals by the only-available criterion) or on the
// caller of discover (removals of silent devices). They must not destroy
// the filter.
class DeviceFilter {
public:
    enum class Change : unsigned { AvailabilityChanged = 1 };
    using ChangeFlags = cppu::Flags<Change>;

    struct Criteria {
        std::uint32_t selector = 0xFFFFFFFF;  // 0xFFFFFFFF: any
        std::uint8_t protocolId = 0;          // 0: any
        bool onlyAvailable = false;
    };

    struct Callbacks {
        std::function<void(const DiscoverInfo&)> onAdded;
        std::function<void(const DiscoverInfo&, ChangeFlags)> onChanged;
        std::function<void(const DiscoverInfo&)> onRemoved;
    };

    // Registers with the host as a listener.
    DeviceFilter(std::shared_ptr<Host> host, Criteria criteria, Callbacks callbacks);
    DeviceFilter(const DeviceFilter&) = delete;
    DeviceFilter& operator=(const DeviceFilter&) = delete;
    ~DeviceFilter();

    // Takes in one record (the host's listener calls this).
    void receive(const DiscoverInfo& record);

    // A copy of the list, in order of first appearance.
    std::vector<DiscoverInfo> devices() const;

    // One discovery pass: sends a Discover Request with the filter's selector
    // and the serial number, waits timeoutMs, then removes every device that
    // has not been heard of since the request went out.
    void discover(int timeoutMs, std::string_view serialNumber);

    const Criteria& criteria() const noexcept { return criteria_; }

private:
    std::shared_ptr<Host> host_;
    Host::ListenerId listenerId_ = 0;
    Criteria criteria_;
    Callbacks callbacks_;

    mutable std::mutex mutex_;
    std::vector<DiscoverInfo> devices_;
};

// Same serial number, IP address, port, selector and protocol id.
bool sameDevice(const DiscoverInfo& a, const DiscoverInfo& b);

}  // namespace kalometnd
