#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "discovery/packet.h"
#include "sim_device.h"
#include "sim_interface.h"
#include "sim_net.h"
#include "sim_options.h"

namespace kmiosim {

// The simulated devices on their interfaces, driven by one poll loop: the
// discovery sockets of every interface, the devices' TCP listeners and
// clients, and the stop request.
class Simulator {
public:
    // Opens every socket and prints one line per device. Throws
    // std::runtime_error when a socket cannot be set up.
    explicit Simulator(SimOptions options);

    // Announces every device, prints "ready", then serves until a stop is
    // requested. Returns the signal (or console event) that asked, 0 when
    // unknown.
    int run(StopRequest& stop);

private:
    // Replies owed to one request, sent when due (at once unless --delay-ms).
    struct PendingReplies {
        std::int64_t dueNs = 0;
        std::size_t iface = 0;
        std::uint32_t address = 0;
        std::uint16_t port = 0;
        kalometnd::Token token{};
        std::vector<std::size_t> devices;
    };

    void receiveRequest(std::size_t iface, const kmio::Socket& socket);
    bool firstSighting(std::size_t iface, const kalometnd::Token& token, std::int64_t now);
    void sendReplies(const PendingReplies& replies);
    void sendGarbage(const SimInterface& iface, std::uint32_t address, std::uint16_t port,
                     const kalometnd::RawPacket& reply);
    void announce(const SimDevice& device);
    void acceptClient(SimDevice& device, const kmio::Socket& listener);
    kalometnd::DiscoverPayload payloadOf(const SimDevice& device) const;
    int pollTimeoutMs() const;

    SimOptions options_;
    std::vector<SimInterface> interfaces_;
    std::vector<SimDevice> devices_;
    std::deque<PendingReplies> pending_;  // in due order: every request waits the same delay
    // A host asks over broadcast and multicast at once: one answer per
    // interface and token, remembered for a few seconds.
    std::map<std::pair<std::size_t, kalometnd::Token>, std::int64_t> answered_;
    unsigned garbageCount_ = 0;
};

}  // namespace kmiosim
