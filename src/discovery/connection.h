#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace kalometnd {

// The discovery datagram transport. For every local interface it is given it
// opens a broadcast channel (directed broadcast, port 65111) and a multicast
// channel (group 239.1.1.21, port 65110). Channels are addressed by network
// id: 0 means all of them; for the i-th interface (from 0), 2i+1 is its
// broadcast channel and 2i+2 its multicast channel.
//
// Receive runs on one thread while send and close come from others; close
// wakes a blocked receive at once.
class Connection {
public:
    virtual ~Connection() = default;

    // Stops the connection: receive returns false from now on, send does
    // nothing and names are empty. With wait, blocks until no call is inside
    // receive or send, then closes the sockets.
    virtual void close(bool wait) = 0;

    // "Broadcast (A)" / "Multicast (A)" for one channel, all names joined by
    // ", " for id 0. Throws InvalidArgumentException "Network id out of range".
    virtual std::string networkName(unsigned networkId) const = 0;

    // Waits up to timeoutMs for one datagram on any channel. Returns false on
    // time-out or when closed; otherwise fills the bytes, the channel's id and
    // the sender's IPv4 address (host order; 0 when not IPv4). Throws
    // NetworkException on socket failures, DatagramDroppedException when the
    // failed receive took its datagram off the socket (one longer than the
    // 1024-byte buffer), so that the caller can read on at once.
    virtual bool receive(std::vector<std::uint8_t>& data, unsigned& networkId, std::uint32_t& sourceAddress,
                         int timeoutMs) = 0;

    // Sends one datagram on a channel, or on every channel (id 0, stopping at
    // the first failure). Throws InvalidArgumentException "Invalid network id"
    // and NetworkException "Could not send datagram: ...".
    virtual void send(unsigned networkId, std::span<const std::uint8_t> datagram) = 0;
};

// Opens the platform's connection over the interfaces (IPv4 addresses in host
// order, channel order follows the set's order). Throws NetworkException when
// a channel cannot be set up; nothing stays open then.
std::shared_ptr<Connection> createConnection(const std::set<std::uint32_t>& interfaces);

// How hosts make their connection; tests and enumerators may pass their own.
using ConnectionFactory = std::function<std::shared_ptr<Connection>(const std::set<std::uint32_t>&)>;

}  // namespace kalometnd
