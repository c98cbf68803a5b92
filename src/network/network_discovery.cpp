#include "network/network_discovery.h"

#include <algorithm>
#include <exception>
#include <string>
#include <system_error>

#include "discovery/exceptions.h"
#include "kmio/kmio.h"

namespace kmio {

PropertyRecord networkDeviceRecord(const kalometnd::DiscoverInfo& device, Ipv4 interfaceAddress,
                                   LocatorFormat format) {
    PropertyRecord record;
    record.set("iface-type", "network");
    record.set("network-host", formatIpv4(device.ipAddress));
    record.set("network-port", std::to_string(device.port));
    // The device's selector in the packet header is its type.
    record.set("device-type", std::to_string(device.selector));
    record.set("device-sn", device.serialNumber);
    record.set("available", device.available ? "1" : "0");
    record.set("protocol-id", std::to_string(static_cast<unsigned>(device.protocolId)));
    record.set("locator", writeNetworkLocator(format, device.serialNumber, device.ipAddress, device.port));
    record.set("iface", interfaceLocator(interfaceAddress));
    record.set("device-info", device.info);
    return record;
}

NetworkDiscovery::NetworkDiscovery(kalometnd::ConnectionFactory makeConnection, Clock clock,
                                   DiscoveryEventSink sink)
    : makeConnection_(std::move(makeConnection)), clock_(std::move(clock)), sink_(std::move(sink)) {}

NetworkDiscovery::~NetworkDiscovery() {
    std::map<Ipv4, ChannelPtr> channels;
    {
        const std::lock_guard lock(mutex_);
        channels.swap(channels_);
    }
    // No lock is held here, so callbacks waiting for one can finish and the
    // host threads can be joined.
    for (auto& [address, tracked] : channels) {
        tracked->channel.stop();
    }
}

NetworkDiscovery::ChannelPtr NetworkDiscovery::makeChannel(Ipv4 address, LocatorFormat format) {
    auto tracked = std::make_shared<TrackedChannel>(address, format);
    const std::weak_ptr<TrackedChannel> weak = tracked;
    DiscoverChannel::Callbacks callbacks;
    callbacks.added = [this, weak](const kalometnd::DiscoverInfo& device) { onAdded(weak, device); };
    callbacks.availabilityChanged = [this, weak](const kalometnd::DiscoverInfo& device) {
        onAvailabilityChanged(weak, device);
    };
    callbacks.removed = [this, weak](const kalometnd::DiscoverInfo& device) { onRemoved(weak, device); };
    try {
        tracked->channel.start(callbacks, makeConnection_);
    } catch (...) {
        // The host may have started before the failure: the reaper joins its
        // thread, away from any lock its callbacks may be waiting for.
        discard(std::move(tracked));
        throw;
    }
    return tracked;
}

std::map<Ipv4, NetworkDiscovery::ChannelPtr> NetworkDiscovery::createMissing(
    const std::set<Ipv4>& addresses) {
    std::vector<Ipv4> missing;
    LocatorFormat format = LocatorFormat::BySerialNumber;
    {
        const std::lock_guard lock(mutex_);
        for (const Ipv4 address : addresses) {
            if (!channels_.contains(address)) {
                missing.push_back(address);
            }
        }
        format = locatorFormat_;
    }
    std::map<Ipv4, ChannelPtr> created;
    try {
        for (const Ipv4 address : missing) {
            created.emplace(address, makeChannel(address, format));
        }
    } catch (...) {
        for (auto& [address, tracked] : created) {
            discard(std::move(tracked));
        }
        throw;
    }
    return created;
}

void NetworkDiscovery::retireLocked(ChannelPtr tracked) {
    tracked->state.retired = true;
    // The reaper holds the channel through a pointer that shares ownership of
    // the whole record, so the state outlives the host's last callback.
    DiscoverChannel* channel = &tracked->channel;
    reaper_.retire(std::shared_ptr<DiscoverChannel>(std::move(tracked), channel));
}

void NetworkDiscovery::discard(ChannelPtr tracked) {
    const std::lock_guard lock(mutex_);
    retireLocked(std::move(tracked));
}

bool NetworkDiscovery::discover(const std::set<Ipv4>& interfaces, std::uint32_t timeoutMs, bool force,
                                const std::string& serialNumber) {
    if (interfaces.empty()) {
        return false;
    }
    std::vector<std::shared_future<void>> passes;
    std::map<Ipv4, ChannelPtr> created;
    try {
        created = createMissing(interfaces);
    } catch (const std::exception&) {
        // No channel for an interface (not local, port refused, no thread):
        // nothing has changed.
        return false;
    }
    bool started = true;
    {
        const std::lock_guard lock(mutex_);
        for (auto& [address, tracked] : created) {
            // Another caller may have made one for the same interface meanwhile.
            if (channels_.contains(address)) {
                retireLocked(std::move(tracked));
            } else {
                channels_.emplace(address, std::move(tracked));
            }
        }
        try {
            const auto now = clock_();
            for (const Ipv4 address : interfaces) {
                TrackedChannel& tracked = *channels_.at(address);
                ChannelState& state = tracked.state;
                if (!force && state.lastPass && now - *state.lastPass < kFreshness) {
                    // Fresh; a pass started by another caller may still be
                    // collecting, and its answers are what this caller wants.
                    if (state.pass.valid()) {
                        passes.push_back(state.pass);
                    }
                    continue;
                }
                state.pass = tracked.channel.startPass(timeoutMs, serialNumber);
                state.lastPass = now;
                passes.push_back(state.pass);
            }
        } catch (const std::system_error&) {
            // No thread for a pass.
            started = false;
        }
    }
    // The passes report devices that stayed silent through the callbacks,
    // which take the discovery lock: wait with it released.
    for (const auto& pass : passes) {
        pass.wait();
    }
    return started;
}

std::optional<kalometnd::DiscoverInfo> NetworkDiscovery::lookup(const std::string& serialNumber) {
    const std::lock_guard lock(mutex_);
    for (const auto& [address, tracked] : channels_) {
        for (const kalometnd::DiscoverInfo& device : tracked->state.availableDevices) {
            if (device.serialNumber == serialNumber) {
                return device;
            }
        }
    }
    return std::nullopt;
}

std::vector<std::pair<Ipv4, std::vector<kalometnd::DiscoverInfo>>> NetworkDiscovery::filterListsOn(
    const std::set<Ipv4>& interfaces) {
    std::vector<ChannelPtr> selected;
    {
        const std::lock_guard lock(mutex_);
        for (const Ipv4 address : interfaces) {
            if (const auto found = channels_.find(address); found != channels_.end()) {
                selected.push_back(found->second);
            }
        }
    }
    // The filter reports silent devices from inside a pass while holding
    // its own lock order (filter, then discovery lock); reading its list
    // outside the discovery lock keeps the two from crossing.
    std::vector<std::pair<Ipv4, std::vector<kalometnd::DiscoverInfo>>> lists;
    lists.reserve(selected.size());
    for (const ChannelPtr& tracked : selected) {
        lists.emplace_back(tracked->channel.interfaceAddress(), tracked->channel.filterList());
    }
    return lists;
}

NetworkDiscovery::Prepared::~Prepared() {
    if (owner_ != nullptr) {
        for (auto& [address, tracked] : created_) {
            owner_->discard(std::move(tracked));
        }
    }
}

void NetworkDiscovery::prepare(const Settings& settings, Prepared& prepared) {
    prepared.owner_ = this;
    prepared.settings_ = settings;
    if (settings.interfaces) {
        // New channels come first: when one cannot be made, this throws with
        // every setting as it was.
        prepared.created_ = createMissing(*settings.interfaces);
    }
}

void NetworkDiscovery::commit(Prepared& prepared) {
    const std::lock_guard lock(mutex_);
    const Settings& settings = prepared.settings_;
    if (settings.locatorFormat) {
        locatorFormat_ = *settings.locatorFormat;
        for (auto& [address, tracked] : channels_) {
            tracked->state.locatorFormat = locatorFormat_;
        }
        for (auto& [address, tracked] : prepared.created_) {
            tracked->state.locatorFormat = locatorFormat_;
        }
    }
    if (settings.interfaces) {
        for (auto it = channels_.begin(); it != channels_.end();) {
            if (settings.interfaces->contains(it->first)) {
                ++it;
            } else {
                retireLocked(std::move(it->second));
                it = channels_.erase(it);
            }
        }
    }
    for (auto& [address, tracked] : prepared.created_) {
        if (channels_.contains(address)) {
            // An enumeration made one for this interface since prepare().
            retireLocked(std::move(tracked));
            continue;
        }
        try {
            // Devices already there answer at once and raise their events.
            tracked->channel.requestDiscovery();
        } catch (const kalometnd::KalometNDException&) {
            // The channel still hears devices announce themselves.
        }
        channels_.emplace(address, std::move(tracked));
    }
    prepared.created_.clear();
}

std::optional<PropertyRecord> NetworkDiscovery::updateDevices(const std::weak_ptr<TrackedChannel>& weak,
                                                              const kalometnd::DiscoverInfo& device,
                                                              bool present) {
    const std::lock_guard lock(mutex_);
    const ChannelPtr tracked = weak.lock();
    // A channel that has been removed (or replaced by a new one on the same
    // interface) raises nothing any more. One that is still being put in
    // place already keeps its list, so that nothing it hears is lost.
    if (!tracked || tracked->state.retired) {
        return std::nullopt;
    }
    std::vector<kalometnd::DiscoverInfo>& devices = tracked->state.availableDevices;
    const auto known = std::find_if(
        devices.begin(), devices.end(),
        [&](const kalometnd::DiscoverInfo& entry) { return kalometnd::sameDevice(entry, device); });
    if (present) {
        if (known != devices.end()) {
            *known = device;
        } else {
            devices.push_back(device);
        }
    } else if (known != devices.end()) {
        devices.erase(known);
    }
    return networkDeviceRecord(device, tracked->channel.interfaceAddress(), tracked->state.locatorFormat);
}

void NetworkDiscovery::raise(std::uint32_t type, const PropertyRecord& record) {
    if (sink_) {
        sink_(type, record);
    }
}

void NetworkDiscovery::onAdded(const std::weak_ptr<TrackedChannel>& channel,
                               const kalometnd::DiscoverInfo& device) {
    if (const auto record = updateDevices(channel, device, true)) {
        raise(KM_IO_EVENT_DEVICE_AVAILABLE, *record);
    }
}

void NetworkDiscovery::onAvailabilityChanged(const std::weak_ptr<TrackedChannel>& channel,
                                             const kalometnd::DiscoverInfo& device) {
    if (const auto record = updateDevices(channel, device, device.available)) {
        raise(device.available ? KM_IO_EVENT_DEVICE_AVAILABLE : KM_IO_EVENT_DEVICE_UNAVAILABLE, *record);
    }
}

void NetworkDiscovery::onRemoved(const std::weak_ptr<TrackedChannel>& channel,
                                 const kalometnd::DiscoverInfo& device) {
    if (const auto record = updateDevices(channel, device, false)) {
        raise(KM_IO_EVENT_DEVICE_UNAVAILABLE, *record);
    }
}

}  // namespace kmio
