#include "network/network_discovery.h"

#include <algorithm>
#include <exception>
#include <string>
#include <system_error>

#include "discovery/discovery_log.h"
#include "discovery/exceptions.h"
#include "kmio/kmio.h"
#include "platform/steady_clock.h"

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

NetworkDiscovery::NetworkDiscovery(kalometnd::ConnectionFactory makeConnection)
    : makeConnection_(std::move(makeConnection)) {
    // Host threads write to the discovery log until the destructor has
    // stopped them; making the log first makes it outlive this object.
    (void)kalometnd::logMask();
}

NetworkDiscovery::~NetworkDiscovery() {
    std::map<Ipv4, ChannelPtr> channels;
    {
        const std::lock_guard lock(mutex_);
        channels.swap(channels_);
    }
    // No lock is held here, so callbacks waiting for one can finish and the
    // host threads can be joined.
    for (auto& [address, channel] : channels) {
        channel->stop();
    }
}

NetworkDiscovery& NetworkDiscovery::instance() {
    // Never destroyed: at exit, host threads and calls on other threads may
    // still use it, and stopping channels there could wait on an event
    // callback that never returns.
    static auto* const cache = new NetworkDiscovery;
    return *cache;
}

void NetworkDiscovery::setEventSink(DiscoveryEventSink sink) {
    const std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
}

NetworkDiscovery::ChannelPtr NetworkDiscovery::makeChannel(Ipv4 address, LocatorFormat format) {
    auto channel = std::make_shared<DiscoverChannel>(address, format);
    const std::weak_ptr<DiscoverChannel> weak = channel;
    DiscoverChannel::Callbacks callbacks;
    callbacks.added = [this, weak](const kalometnd::DiscoverInfo& device) { onAdded(weak, device); };
    callbacks.availabilityChanged = [this, weak](const kalometnd::DiscoverInfo& device) {
        onAvailabilityChanged(weak, device);
    };
    callbacks.removed = [this, weak](const kalometnd::DiscoverInfo& device) { onRemoved(weak, device); };
    try {
        channel->start(callbacks, makeConnection_);
    } catch (...) {
        // The host may have started before the failure: the reaper joins its
        // thread, away from any lock its callbacks may be waiting for.
        discard(std::move(channel));
        throw;
    }
    return channel;
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
        for (auto& [address, channel] : created) {
            discard(std::move(channel));
        }
        throw;
    }
    return created;
}

void NetworkDiscovery::retireLocked(ChannelPtr channel) {
    channel->state().retired = true;
    reaper_.retire(std::move(channel));
}

void NetworkDiscovery::discard(ChannelPtr channel) {
    const std::lock_guard lock(mutex_);
    retireLocked(std::move(channel));
}

std::uint32_t NetworkDiscovery::discover(const std::set<Ipv4>& interfaces, std::uint32_t timeoutMs,
                                         bool force, const std::string& serialNumber) {
    if (interfaces.empty()) {
        return KM_IO_ERR_BAD_OPTIONS;
    }
    std::vector<std::shared_future<void>> passes;
    std::map<Ipv4, ChannelPtr> created;
    try {
        created = createMissing(interfaces);
    } catch (const kalometnd::KalometNDException&) {
        return KM_IO_ERR_BAD_OPTIONS;
    } catch (const std::system_error&) {
        return KM_IO_ERR_BAD_OPTIONS;
    }
    std::uint32_t result = KM_IO_OK;
    {
        const std::lock_guard lock(mutex_);
        for (auto& [address, channel] : created) {
            // Another caller may have made one for the same interface meanwhile.
            if (channels_.contains(address)) {
                retireLocked(std::move(channel));
            } else {
                channels_.emplace(address, std::move(channel));
            }
        }
        try {
            const std::int64_t now = steadyNowNs();
            for (const Ipv4 address : interfaces) {
                DiscoverChannel& channel = *channels_.at(address);
                DiscoverChannel::State& state = channel.state();
                if (!force && state.lastDiscoveryNs > now - kFreshnessNs) {
                    // Fresh; a pass started by another caller may still be
                    // collecting, and its answers are what this caller wants.
                    if (state.pass.valid()) {
                        passes.push_back(state.pass);
                    }
                    continue;
                }
                state.pass = channel.startPass(timeoutMs, serialNumber);
                state.lastDiscoveryNs = now;
                passes.push_back(state.pass);
            }
        } catch (const std::system_error&) {
            // No thread for a pass.
            result = KM_IO_ERR_BAD_OPTIONS;
        }
    }
    // The passes report devices that stayed silent through the callbacks,
    // which take the discovery lock: wait with it released.
    for (const auto& pass : passes) {
        pass.wait();
    }
    return result;
}

std::optional<kalometnd::DiscoverInfo> NetworkDiscovery::lookup(const std::string& serialNumber) {
    const std::lock_guard lock(mutex_);
    for (const auto& [address, channel] : channels_) {
        for (const kalometnd::DiscoverInfo& device : channel->state().devices) {
            if (device.serialNumber == serialNumber) {
                return device;
            }
        }
    }
    return std::nullopt;
}

std::vector<std::pair<Ipv4, std::vector<kalometnd::DiscoverInfo>>> NetworkDiscovery::devicesOn(
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
    for (const ChannelPtr& channel : selected) {
        lists.emplace_back(channel->interfaceAddress(), channel->filteredDevices());
    }
    return lists;
}

std::set<Ipv4> NetworkDiscovery::channelAddresses() {
    const std::lock_guard lock(mutex_);
    std::set<Ipv4> addresses;
    for (const auto& [address, channel] : channels_) {
        addresses.insert(address);
    }
    return addresses;
}

std::uint32_t NetworkDiscovery::apply(const Settings& settings) {
    Prepared prepared;
    const std::uint32_t result = prepare(settings, prepared);
    return result == KM_IO_OK ? commit(prepared) : result;
}

NetworkDiscovery::Prepared::~Prepared() {
    if (owner_ != nullptr) {
        for (auto& [address, channel] : created_) {
            owner_->discard(std::move(channel));
        }
    }
}

std::uint32_t NetworkDiscovery::prepare(const Settings& settings, Prepared& prepared) {
    prepared.owner_ = this;
    prepared.settings_ = settings;
    if (settings.interfaces) {
        // New channels come first: when one cannot be made, the call fails
        // with every setting as it was.
        try {
            prepared.created_ = createMissing(*settings.interfaces);
        } catch (const std::exception&) {
            return KM_IO_ERR_BAD_OPTIONS;
        }
    }
    return KM_IO_OK;
}

std::uint32_t NetworkDiscovery::commit(Prepared& prepared) {
    const std::lock_guard lock(mutex_);
    const Settings& settings = prepared.settings_;
    if (settings.locatorFormat) {
        locatorFormat_ = *settings.locatorFormat;
        for (auto& [address, channel] : channels_) {
            channel->state().locatorFormat = locatorFormat_;
        }
        for (auto& [address, channel] : prepared.created_) {
            channel->state().locatorFormat = locatorFormat_;
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
    for (auto& [address, channel] : prepared.created_) {
        if (channels_.contains(address)) {
            // An enumeration made one for this interface since prepare().
            retireLocked(std::move(channel));
            continue;
        }
        try {
            // Devices already there answer at once and raise their events.
            channel->requestDiscovery();
        } catch (const kalometnd::KalometNDException&) {
            // The channel still hears devices announce themselves.
        }
        channels_.emplace(address, std::move(channel));
    }
    prepared.created_.clear();
    return KM_IO_OK;
}

std::optional<PropertyRecord> NetworkDiscovery::updateDevices(const std::weak_ptr<DiscoverChannel>& weak,
                                                              const kalometnd::DiscoverInfo& device,
                                                              bool present) {
    const std::lock_guard lock(mutex_);
    const ChannelPtr channel = weak.lock();
    // A channel that has been removed (or replaced by a new one on the same
    // interface) raises nothing any more. One that is still being put in
    // place already keeps its table, so that nothing it hears is lost.
    if (!channel || channel->state().retired) {
        return std::nullopt;
    }
    std::vector<kalometnd::DiscoverInfo>& devices = channel->state().devices;
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
    return networkDeviceRecord(device, channel->interfaceAddress(), channel->state().locatorFormat);
}

void NetworkDiscovery::raise(std::uint32_t type, const PropertyRecord& record) {
    DiscoveryEventSink sink;
    {
        const std::lock_guard lock(mutex_);
        sink = sink_;
    }
    if (sink) {
        sink(type, record);
    }
}

void NetworkDiscovery::onAdded(const std::weak_ptr<DiscoverChannel>& channel,
                               const kalometnd::DiscoverInfo& device) {
    if (const auto record = updateDevices(channel, device, true)) {
        raise(KM_IO_EVENT_DEVICE_AVAILABLE, *record);
    }
}

void NetworkDiscovery::onAvailabilityChanged(const std::weak_ptr<DiscoverChannel>& channel,
                                             const kalometnd::DiscoverInfo& device) {
    if (const auto record = updateDevices(channel, device, device.available)) {
        raise(device.available ? KM_IO_EVENT_DEVICE_AVAILABLE : KM_IO_EVENT_DEVICE_UNAVAILABLE, *record);
    }
}

void NetworkDiscovery::onRemoved(const std::weak_ptr<DiscoverChannel>& channel,
                                 const kalometnd::DiscoverInfo& device) {
    if (const auto record = updateDevices(channel, device, false)) {
        raise(KM_IO_EVENT_DEVICE_UNAVAILABLE, *record);
    }
}

}  // namespace kmio
