#include "network/discover_channel.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

namespace kmio {

namespace {

// Every device of the interface: the enumeration's find- options do the
// choosing, so the filter keeps unavailable devices too.
constexpr kalometnd::DeviceFilter::Criteria kAnyDevice{0xFFFFFFFF, 0, false};

}  // namespace

DiscoverChannel::DiscoverChannel(Ipv4 interfaceAddress) : interfaceAddress_(interfaceAddress) {}

DiscoverChannel::~DiscoverChannel() {
    stop();
}

void DiscoverChannel::start(const Callbacks& callbacks, const kalometnd::ConnectionFactory& makeConnection) {
    auto host = std::make_shared<kalometnd::Host>(makeConnection);
    host->start({interfaceAddress_});
    kalometnd::DeviceFilter::Callbacks filterCallbacks;
    filterCallbacks.onAdded = callbacks.added;
    filterCallbacks.onChanged = [changed = callbacks.availabilityChanged](
                                    const kalometnd::DiscoverInfo& device,
                                    kalometnd::DeviceFilter::ChangeFlags flags) {
        if (flags.has(kalometnd::DeviceFilter::Change::AvailabilityChanged)) {
            changed(device);
        }
    };
    filterCallbacks.onRemoved = callbacks.removed;
    filter_ = std::make_shared<kalometnd::DeviceFilter>(host, kAnyDevice, std::move(filterCallbacks));
    host_ = std::move(host);
}

void DiscoverChannel::stop() {
    // The filter stays: a pass in flight or a reader may still use its list.
    if (host_) {
        host_->stop();
    }
}

void DiscoverChannel::requestDiscovery() {
    host_->discover(kAnyDevice.selector, "");
}

std::shared_future<void> DiscoverChannel::startPass(std::uint32_t timeoutMs,
                                                    const std::string& serialNumber) {
    const int timeout = static_cast<int>(std::min<std::uint32_t>(timeoutMs, std::numeric_limits<int>::max()));
    // The pass holds the filter (and through it the host), not the channel,
    // so that it never ends up dropping the last reference to the channel.
    return std::async(std::launch::async,
                      [filter = filter_, timeout, serialNumber] {
                          try {
                              filter->discover(timeout, serialNumber);
                          } catch (const std::exception&) {
                              // A host stopped under the pass, or a send that
                              // failed: the list stays as it was.
                          }
                      })
        .share();
}

std::vector<kalometnd::DiscoverInfo> DiscoverChannel::filterList() const {
    return filter_->devices();
}

}  // namespace kmio
