#pragma once

#include <cstdint>
#include <span>

#include "platform/socket.h"

namespace kmiosim {

// The discovery sockets of one local interface with address A.
//
// Requests arrive on a broadcast receiver (port 65111) and a multicast
// receiver (the group on 65110), bound as each system needs (sim_net_*.cpp)
// so that a host on the same machine can bind the same ports. Replies and
// announcements leave from a third socket bound to A, so that they carry A
// as source.
class SimInterface {
public:
    // Throws std::runtime_error when A is not a local address or a socket
    // cannot be set up.
    explicit SimInterface(std::uint32_t address);

    std::uint32_t address() const { return address_; }
    std::uint32_t broadcastAddress() const { return broadcast_; }

    // Sockets on which requests arrive.
    const kmio::Socket& broadcastSocket() const { return broadcastSocket_; }
    const kmio::Socket& multicastSocket() const { return multicastSocket_; }

    // Sends one datagram from A. Returns 0 or the system's error number:
    // a simulator reports a lost datagram and goes on.
    int sendTo(std::uint32_t address, std::uint16_t port, std::span<const std::uint8_t> datagram) const;

    // Sends one datagram by directed broadcast and to the group.
    int announce(std::span<const std::uint8_t> datagram) const;

private:
    std::uint32_t address_;
    std::uint32_t broadcast_;
    kmio::Socket broadcastSocket_;
    kmio::Socket multicastSocket_;
    kmio::Socket sender_;
};

}  // namespace kmiosim
