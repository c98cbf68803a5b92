#pragma once

#include <cstdint>
#include <span>

#include "platform/unique_fd.h"

namespace kmiosim {

// The discovery sockets of one local interface with address A.
//
// Hosts on the same machine bind the wildcard address on the discovery
// ports, so the simulator must not: it binds the interface's broadcast
// address (A | ~netmask) on 65111 and the group on 65110, both with
// SO_REUSEADDR, which Linux lets coexist with a wildcard binding and which
// still receive the host's broadcasts and multicasts. IP_MULTICAST_ALL=0
// keeps group traffic of other interfaces out. Replies and announcements
// leave from a third socket bound to A, so that they carry A as source.
class SimInterface {
public:
    // Throws std::runtime_error when A is not a local address or a socket
    // cannot be set up.
    explicit SimInterface(std::uint32_t address);

    std::uint32_t address() const { return address_; }
    std::uint32_t broadcastAddress() const { return broadcast_; }

    // Sockets on which requests arrive, to poll for POLLIN.
    int broadcastFd() const { return broadcastSocket_.get(); }
    int multicastFd() const { return multicastSocket_.get(); }

    // Sends one datagram from A. Returns 0 or the errno of the failure:
    // a simulator reports a lost datagram and goes on.
    int sendTo(std::uint32_t address, std::uint16_t port, std::span<const std::uint8_t> datagram) const;

    // Sends one datagram by directed broadcast and to the group.
    int announce(std::span<const std::uint8_t> datagram) const;

private:
    std::uint32_t address_;
    std::uint32_t broadcast_;
    kmio::UniqueFd broadcastSocket_;
    kmio::UniqueFd multicastSocket_;
    kmio::UniqueFd sender_;
};

}  // namespace kmiosim
