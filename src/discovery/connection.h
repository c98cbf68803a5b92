#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "platform/wake_event.h"

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

// The part of every platform's connection that does not touch a socket:
// the channel list and its network ids, the names, the id checks, and the
// open flag with the count of callers inside receive or send that lets
// close(true) wait until the sockets are no longer in use. The finish event
// that wakes a blocked receive is made here too, as a WakeEvent.
//
// Hook contract for the OS part (connection_linux.cpp, connection_win32.cpp).
// Its constructor opens one socket per entry of channels(), in that order
// (broadcast, then multicast, per interface), and throws NetworkException
// with the failed step's text followed by ": " and the system's message
// ("Could not create socket", "Could not set SO_REUSEADDR", "Could not set
// SO_BROADCAST", "Could not set IP_MULTICAST_LOOP", "Could not bind to iface
// address", "Could not bind to multicast group", "Could not set outgoing
// interface", "Could not join multicast group", and "Could not create event"
// or "Could not associate event with socket" where the platform waits on
// per-socket events); sockets already made are closed then. The broadcast
// channel's destination is the interface's directed broadcast address (A OR
// NOT netmask, 0.0.0.0 when the mask cannot be found, which is logged, not
// thrown), port 65111; the multicast channel's is 239.1.1.21, port 65110.
// The hooks run only between a successful enter and its leave, so the
// sockets are never released under them:
//  - waitAndReceive(data, networkId, source, timeoutMs) waits up to
//    timeoutMs for the finish event (finishEvent()) or any channel, taking
//    the finish event first and the channels in id order. Time-out or finish:
//    false. A channel that is ready: one datagram of at most 1024 bytes is
//    read into data, networkId is that channel's id (index + 1) and source is
//    the sender's IPv4 address in host order, 0 when the sender is not IPv4;
//    true. A channel that woke the wait but has nothing to read after all
//    gives false. Throws NetworkException "Failed to wait for events",
//    "Could not receive datagram" (a longer datagram included), and where
//    the platform reports them "Could not determine event type", "Socket was
//    closed externally", "Could not read from socket", "Could not reset
//    event", "Unexpected event", each with ": " and the system's message.
//  - sendOn(index, datagram) sends one datagram to the destination of
//    channels()[index]; throws NetworkException "Could not send datagram: "
//    and the system's message. Never raises a signal.
//  - releaseChannels() closes every socket (shut down in both directions
//    first); called once no caller is inside, by close(true). What it leaves
//    behind is destroyed with the object.
class ChannelConnection : public Connection {
public:
    enum class Kind : std::uint32_t { Broadcast = 0, Multicast = 1 };

    struct Channel {
        std::uint32_t interfaceAddress;  // host order
        Kind kind;
    };

    ChannelConnection(const ChannelConnection&) = delete;
    ChannelConnection& operator=(const ChannelConnection&) = delete;

    void close(bool wait) final;
    std::string networkName(unsigned networkId) const final;
    bool receive(std::vector<std::uint8_t>& data, unsigned& networkId, std::uint32_t& sourceAddress,
                 int timeoutMs) final;
    void send(unsigned networkId, std::span<const std::uint8_t> datagram) final;

protected:
    // Lays out the channels, interface by interface in the set's order, and
    // makes the finish event (NetworkException "Could not create event").
    // The connection counts as open once the derived constructor returns.
    explicit ChannelConnection(const std::set<std::uint32_t>& interfaces);
    ~ChannelConnection() override;

    const std::vector<Channel>& channels() const noexcept { return channels_; }
    const kmio::WakeEvent& finishEvent() const noexcept { return finish_; }

    virtual bool waitAndReceive(std::vector<std::uint8_t>& data, unsigned& networkId,
                                std::uint32_t& sourceAddress, int timeoutMs) = 0;
    virtual void sendOn(std::size_t index, std::span<const std::uint8_t> datagram) = 0;
    virtual void releaseChannels() noexcept = 0;

private:
    class Inside;

    // Counts the caller in while open; false when closed.
    bool enter();
    void leave();
    static kmio::WakeEvent makeFinishEvent();

    std::vector<Channel> channels_;
    kmio::WakeEvent finish_;
    mutable std::mutex mutex_;
    std::condition_variable idle_;
    bool open_ = true;
    std::uint32_t inside_ = 0;
};

// Opens the platform's connection over the interfaces (IPv4 addresses in host
// order, channel order follows the set's order). Throws NetworkException when
// a channel cannot be set up; nothing stays open then.
std::shared_ptr<Connection> createConnection(const std::set<std::uint32_t>& interfaces);

// How hosts make their connection; tests and enumerators may pass their own.
using ConnectionFactory = std::function<std::shared_ptr<Connection>(const std::set<std::uint32_t>&)>;

}  // namespace kalometnd
