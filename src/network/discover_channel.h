#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "discovery/connection.h"
#include "discovery/device_filter.h"
#include "discovery/host.h"
#include "options/locator.h"

namespace kmio {

// Discovery on one local interface: a Host whose connection covers only that
// interface, and the DeviceFilter that keeps the list of devices answering
// there. The discovery cache owns one per interface; discovery passes in
// flight and the retirement of removed channels hold further references.
//
// The fields of state() belong to the discovery cache and are read and
// written only under its lock.
class DiscoverChannel {
public:
    // What the filter reports, already reduced to the three cases the cache
    // cares about. They run on the host's receiving thread, or on the thread
    // of a discovery pass for devices that did not answer it.
    struct Callbacks {
        std::function<void(const kalometnd::DiscoverInfo&)> added;
        // Called only when the device's availability changed.
        std::function<void(const kalometnd::DiscoverInfo&)> availabilityChanged;
        std::function<void(const kalometnd::DiscoverInfo&)> removed;
    };

    explicit DiscoverChannel(Ipv4 interfaceAddress);
    DiscoverChannel(const DiscoverChannel&) = delete;
    DiscoverChannel& operator=(const DiscoverChannel&) = delete;
    // Stops the host. Must not run on the host's own thread, nor under a lock
    // that the callbacks take (see stop).
    ~DiscoverChannel();

    // Starts the host on the interface and registers the filter with the
    // callbacks. Throws the discovery component's exceptions (an address
    // that is no local interface, a port that cannot be bound).
    void start(const Callbacks& callbacks, const kalometnd::ConnectionFactory& makeConnection);

    // Stops the host and joins its thread. The callbacks may be waiting for
    // the discovery lock or the table mutex, so the caller must hold neither.
    void stop();

    Ipv4 interfaceAddress() const noexcept { return interfaceAddress_; }

    // Sends one Discover Request without waiting, so that present devices
    // answer and reach the callbacks. Throws when the host is not running.
    void requestDiscovery();

    // Starts one discovery pass (request, reply collection for timeoutMs,
    // ageing) on a thread of its own. The future never holds an exception: a
    // pass that fails leaves the device list as it was.
    std::shared_future<void> startPass(std::uint32_t timeoutMs, const std::string& serialNumber);

    // A copy of the filter's list: every device the filter keeps, unavailable
    // ones included.
    std::vector<kalometnd::DiscoverInfo> filterList() const;

private:
    const Ipv4 interfaceAddress_;
    std::shared_ptr<kalometnd::Host> host_;
    std::shared_ptr<kalometnd::DeviceFilter> filter_;
};

}  // namespace kmio
