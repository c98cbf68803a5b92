#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "network/channel_reaper.h"
#include "network/discover_channel.h"
#include "discovery/connection.h"
#include "discovery/host.h"
#include "options/locator.h"
#include "options/property_record.h"

namespace kmio {

// Where discovery events go: the interface layer forwards them to the
// application's event callback. Called with no discovery lock held.
using DiscoveryEventSink = std::function<void(std::uint32_t type, const PropertyRecord& properties)>;

// The record of one discovered device, keys in their fixed order.
PropertyRecord networkDeviceRecord(const kalometnd::DiscoverInfo& device, Ipv4 interfaceAddress,
                                   LocatorFormat format);

// The process-wide discovery cache: one DiscoverChannel per local interface
// address, guarded by one lock (the discovery lock). Enumeration, the
// serial-number lookup of IoNetwork and the global discovery settings meet
// here; the channels' filter callbacks keep each channel's device table and
// raise discovery events.
//
// Lock order: the discovery lock is never held while an event is raised (the
// sink takes the table mutex), while a channel is stopped, or while a
// discovery pass runs.
class NetworkDiscovery {
public:
    static constexpr std::int64_t kFreshnessNs = 3'000'000'000;

    explicit NetworkDiscovery(kalometnd::ConnectionFactory makeConnection = kalometnd::createConnection);
    NetworkDiscovery(const NetworkDiscovery&) = delete;
    NetworkDiscovery& operator=(const NetworkDiscovery&) = delete;
    // Ends every channel.
    ~NetworkDiscovery();

    // The cache behind the library's entry points.
    static NetworkDiscovery& instance();

    void setEventSink(DiscoveryEventSink sink);

    // Makes sure every interface has a channel and runs a discovery pass on
    // each whose last pass is 3 s old or more (every one when forced), all at
    // once, and waits for them. KM_IO_ERR_BAD_OPTIONS for an empty set or
    // when a channel cannot be set up; callers go on with what the cache holds.
    std::uint32_t discover(const std::set<Ipv4>& interfaces, std::uint32_t timeoutMs, bool force,
                           const std::string& serialNumber);

    // The first available device with exactly this serial number, walking the
    // channels by address and each one's devices in order of appearance.
    std::optional<kalometnd::DiscoverInfo> lookup(const std::string& serialNumber);

    // The filter's device list of each interface that has a channel, in
    // address order.
    std::vector<std::pair<Ipv4, std::vector<kalometnd::DiscoverInfo>>> devicesOn(
        const std::set<Ipv4>& interfaces);

    // The global settings: a new event locator format (also for the channels
    // that exist), and the set of interfaces on which discovery runs in the
    // background. Absent values leave the setting as it is; "none" (an empty
    // optional inside) ends every channel. KM_IO_ERR_BAD_OPTIONS when a
    // channel cannot be created, and then nothing has changed.
    struct Settings {
        std::optional<LocatorFormat> locatorFormat;
        // nullopt: leave the channels alone; a set: reconcile with it.
        std::optional<std::set<Ipv4>> interfaces;
    };
    std::uint32_t apply(const Settings& settings);

    // apply() in two steps, for callers that must hold a lock of their own
    // while the settings take effect (KM_IO_SetGlobalOptions holds the table
    // mutex) but must not hold it while channels start: starting one
    // registers a listener with its host, whose thread takes the listener
    // mutex first and the table mutex after it to raise events. prepare()
    // checks and starts the channels of new interfaces with no lock held;
    // commit() puts everything in force. A prepared set that is not
    // committed is discarded when destroyed.
    class Prepared {
    public:
        Prepared() = default;
        Prepared(const Prepared&) = delete;
        Prepared& operator=(const Prepared&) = delete;
        ~Prepared();

    private:
        friend class NetworkDiscovery;
        NetworkDiscovery* owner_ = nullptr;
        Settings settings_;
        std::map<Ipv4, std::shared_ptr<DiscoverChannel>> created_;
    };
    std::uint32_t prepare(const Settings& settings, Prepared& prepared);
    std::uint32_t commit(Prepared& prepared);

    // The interfaces that have a channel now.
    std::set<Ipv4> channelAddresses();

private:
    using ChannelPtr = std::shared_ptr<DiscoverChannel>;

    // Creates and starts a channel. The caller holds no lock (see Prepared)
    // and puts it in the table. Throws the discovery component's exceptions.
    ChannelPtr makeChannel(Ipv4 address, LocatorFormat format);

    // Creates channels for the addresses that have none yet, with no lock
    // held. On failure discards what it made and throws.
    std::map<Ipv4, ChannelPtr> createMissing(const std::set<Ipv4>& addresses);

    // Marks a channel retired and hands it to the reaper; the caller holds the
    // lock (retireLocked) or not (discard).
    void retireLocked(ChannelPtr channel);
    void discard(ChannelPtr channel);

    // The callbacks of one channel: update its device table under the lock,
    // then raise the event outside it.
    void onAdded(const std::weak_ptr<DiscoverChannel>& channel, const kalometnd::DiscoverInfo& device);
    void onAvailabilityChanged(const std::weak_ptr<DiscoverChannel>& channel,
                               const kalometnd::DiscoverInfo& device);
    void onRemoved(const std::weak_ptr<DiscoverChannel>& channel, const kalometnd::DiscoverInfo& device);
    // Runs update on the channel's table if the channel is still in the
    // cache, and returns the event's record; nullopt when it is gone.
    std::optional<PropertyRecord> updateDevices(const std::weak_ptr<DiscoverChannel>& weak,
                                                const kalometnd::DiscoverInfo& device, bool present);
    void raise(std::uint32_t type, const PropertyRecord& record);

    const kalometnd::ConnectionFactory makeConnection_;
    std::mutex mutex_;  // the discovery lock
    std::map<Ipv4, ChannelPtr> channels_;
    LocatorFormat locatorFormat_ = LocatorFormat::BySerialNumber;
    DiscoveryEventSink sink_;
    // Declared last so that it is destroyed first, stopping what it holds
    // while the rest of the cache is still there.
    ChannelReaper reaper_;
};

}  // namespace kmio
