#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "discovery/connection.h"
#include "discovery/host.h"
#include "network/channel_reaper.h"
#include "network/discover_channel.h"
#include "options/locator.h"
#include "options/property_record.h"
#include "platform/clock.h"

namespace kmio {

// Where discovery events go: the interface layer forwards them to the
// application's event callback. Called with no discovery lock held.
using DiscoveryEventSink = std::function<void(std::uint32_t type, const PropertyRecord& properties)>;

// The record of one discovered device, keys in their fixed order.
PropertyRecord networkDeviceRecord(const kalometnd::DiscoverInfo& device, Ipv4 interfaceAddress,
                                   LocatorFormat format);

// The discovery cache: one DiscoverChannel per local interface
// address, guarded by one lock (the discovery lock). Enumeration, the
// serial-number lookup of IoNetwork and the global discovery settings meet
// here; the channels' filter callbacks keep each channel's list of available
// devices and raise discovery events through the event sink. The library's
// one instance, wired to the device table, belongs to the process object of
// the interface layer; tests make their own.
//
// Lock order: the discovery lock is never held while an event is raised (the
// sink takes the table mutex), while a channel is stopped, or while a
// discovery pass runs.
class NetworkDiscovery {
    struct TrackedChannel;

public:
    // A channel whose last pass started less than this long ago is fresh.
    static constexpr std::chrono::milliseconds kFreshness{3000};

    // makeConnection opens each channel's sockets; clock times the passes;
    // events go to sink (none when empty).
    explicit NetworkDiscovery(kalometnd::ConnectionFactory makeConnection = kalometnd::createConnection,
                              Clock clock = steadyClock(), DiscoveryEventSink sink = {});
    NetworkDiscovery(const NetworkDiscovery&) = delete;
    NetworkDiscovery& operator=(const NetworkDiscovery&) = delete;
    // Ends every channel.
    ~NetworkDiscovery();

    // Makes sure every interface has a channel and runs a discovery pass on
    // each whose last pass is 3 s old or more (every one when forced), all at
    // once, and waits for them. False for an empty set, when a channel cannot
    // be set up (nothing changed then) or a pass cannot start: a failed run is
    // no error to the callers, who go on with what the cache holds.
    bool discover(const std::set<Ipv4>& interfaces, std::uint32_t timeoutMs, bool force,
                  const std::string& serialNumber);

    // The first available device with exactly this serial number, walking the
    // channels by address and each one's devices in order of appearance.
    std::optional<kalometnd::DiscoverInfo> lookup(const std::string& serialNumber);

    // The filter's list of each interface that has a channel, in address
    // order: every device heard there, unavailable ones included.
    std::vector<std::pair<Ipv4, std::vector<kalometnd::DiscoverInfo>>> filterListsOn(
        const std::set<Ipv4>& interfaces);

    // The global settings: a new event locator format (also for the channels
    // that exist), and the set of interfaces on which discovery runs in the
    // background. Absent values leave the setting as it is; an empty set ends
    // every channel.
    struct Settings {
        std::optional<LocatorFormat> locatorFormat;
        // nullopt: leave the channels alone; a set: reconcile with it.
        std::optional<std::set<Ipv4>> interfaces;
    };

    // The settings put in force in two steps, because the caller
    // (KM_IO_SetGlobalOptions) must hold the table mutex while they take
    // effect but must not hold it while channels start: starting one
    // registers a listener with its host, whose thread takes the listener
    // mutex first and the table mutex after it to raise events. prepare()
    // starts the channels of new interfaces with no lock held, and throws
    // (the discovery exceptions, std::system_error) when one cannot be made,
    // leaving everything as it was; commit() puts everything in force. A
    // prepared set that is not committed is discarded when destroyed.
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
        std::map<Ipv4, std::shared_ptr<TrackedChannel>> created_;
    };
    void prepare(const Settings& settings, Prepared& prepared);
    void commit(Prepared& prepared);

private:
    // What the cache keeps about one channel, read and written only under the
    // discovery lock.
    struct ChannelState {
        // Devices that appeared on the interface and were not since reported
        // unavailable or removed, in order of first appearance: the list
        // serial-number lookups walk.
        std::vector<kalometnd::DiscoverInfo> availableDevices;
        // When the last discovery pass started; none before the first.
        std::optional<std::chrono::steady_clock::time_point> lastPass;
        // The form of "locator" in the records of this channel's events.
        LocatorFormat locatorFormat = LocatorFormat::BySerialNumber;
        // The pass running now or last run, so that a caller who finds the
        // channel fresh can still wait for the answers of a pass in flight.
        std::shared_future<void> pass;
        // Set when the cache has dropped the channel (or never took it in):
        // its callbacks then change nothing and raise no event.
        bool retired = false;
    };

    // A channel and what the cache keeps about it, owned together.
    struct TrackedChannel {
        TrackedChannel(Ipv4 address, LocatorFormat format) : channel(address) {
            state.locatorFormat = format;
        }
        DiscoverChannel channel;
        ChannelState state;
    };
    using ChannelPtr = std::shared_ptr<TrackedChannel>;

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

    // The callbacks of one channel: update its list of available devices
    // under the lock, then raise the event outside it.
    void onAdded(const std::weak_ptr<TrackedChannel>& channel, const kalometnd::DiscoverInfo& device);
    void onAvailabilityChanged(const std::weak_ptr<TrackedChannel>& channel,
                               const kalometnd::DiscoverInfo& device);
    void onRemoved(const std::weak_ptr<TrackedChannel>& channel, const kalometnd::DiscoverInfo& device);
    // Updates the channel's list if the channel is still in the cache, and
    // returns the event's record; nullopt when it is gone.
    std::optional<PropertyRecord> updateDevices(const std::weak_ptr<TrackedChannel>& weak,
                                                const kalometnd::DiscoverInfo& device, bool present);
    void raise(std::uint32_t type, const PropertyRecord& record);

    const kalometnd::ConnectionFactory makeConnection_;
    const Clock clock_;
    // Set once by the constructor, so reading it needs no lock.
    const DiscoveryEventSink sink_;
    std::mutex mutex_;  // the discovery lock
    std::map<Ipv4, ChannelPtr> channels_;
    LocatorFormat locatorFormat_ = LocatorFormat::BySerialNumber;
    // Declared last so that it is destroyed first, stopping what it holds
    // while the rest of the cache is still there.
    ChannelReaper reaper_;
};

}  // namespace kmio
