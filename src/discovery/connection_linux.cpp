// The discovery transport on Linux sockets.
//
// Linux hands directed broadcasts and multicasts only to sockets bound to the
// wildcard address (or the group), never to a socket bound to the interface's
// own unicast address. So each channel binds 0.0.0.0 on its port and is tied
// to its interface with SO_BINDTODEVICE instead; the multicast channel also
// turns IP_MULTICAST_ALL off so that it sees only the group it joined on its
// own interface. Where SO_BINDTODEVICE is refused, the channel binds the
// interface address, which still receives unicast replies.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "discovery/channel_socket_setup.h"
#include "discovery/connection.h"
#include "discovery/discovery_log.h"
#include "discovery/exceptions.h"
#include "discovery/packet.h"
#include "platform/error_text.h"
#include "platform/interface_addresses.h"
#include "platform/socket.h"
#include "platform/socket_address.h"
#include "platform/socket_options.h"
#include "platform/steady_clock.h"

namespace kalometnd {

namespace {

constexpr std::size_t kDatagramBuffer = 1024;
constexpr int kReceiveBufferBytes = 1 << 20;

// The interface that carries an address (loopback included), with its mask.
std::optional<kmio::InterfaceAddress> findInterface(std::uint32_t address) {
    try {
        for (kmio::InterfaceAddress& entry : kmio::listInterfaceAddresses()) {
            if (entry.address == address) {
                return std::move(entry);
            }
        }
    } catch (const std::system_error& e) {
        logLazy(kLogErrors, [&] {
            return "Could not retrieve list of interfaces: " + kmio::systemErrorText(e.code().value());
        });
    }
    return std::nullopt;
}

using Kind = ChannelConnection::Kind;

// The socket of one channel, set up for its interface and kind.
class ChannelSocket {
public:
    explicit ChannelSocket(const ChannelConnection::Channel& channel) {
        const std::uint32_t interfaceAddress = channel.interfaceAddress;
        const bool broadcast = channel.kind == Kind::Broadcast;
        const std::optional<kmio::InterfaceAddress> iface = findInterface(interfaceAddress);
        destination_ = channelDestination(channel.kind, iface ? (interfaceAddress | ~iface->netmask) : 0);

        socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!socket_) {
            throwSocketError("Could not create socket", errno);
        }
        setChannelOptions(socket_, channel.kind);
        if (!broadcast) {
            throwIfFailed(kmio::setSocketInt(socket_, IPPROTO_IP, IP_MULTICAST_ALL, 0),
                          "Could not set IP_MULTICAST_ALL");
        }
        raiseReceiveBuffer();

        const bool boundToDevice = iface && bindToDevice(fd(), iface->name);
        bindChannel(socket_, channel.kind, boundToDevice ? INADDR_ANY : interfaceAddress);
        if (!broadcast) {
            joinChannelGroup(socket_, interfaceAddress);
        }
    }

    ChannelSocket(const ChannelSocket&) = delete;
    ChannelSocket& operator=(const ChannelSocket&) = delete;
    ~ChannelSocket() { socket_.shutdownBoth(); }

    int fd() const noexcept { return static_cast<int>(socket_.get()); }

    void send(std::span<const std::uint8_t> datagram) const {
        const ssize_t sent = ::sendto(fd(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                                      reinterpret_cast<const sockaddr*>(&destination_), sizeof destination_);
        if (sent < 0) {
            throwSocketError("Could not send datagram", errno);
        }
    }

private:
    // A burst of replies from many devices must not overflow the default
    // buffer; SO_RCVBUFFORCE passes the system limit when we may.
    void raiseReceiveBuffer() const {
        if (kmio::setSocketInt(socket_, SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBufferBytes) != 0) {
            throwIfFailed(kmio::setSocketInt(socket_, SOL_SOCKET, SO_RCVBUF, kReceiveBufferBytes),
                          "Could not set SO_RCVBUF");
        }
    }

    static bool bindToDevice(int fd, const std::string& device) {
        if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
                       static_cast<socklen_t>(device.size())) == 0) {
            return true;
        }
        const int error = errno;
        logLazy(kLogErrors, [&] {
            return "Could not bind socket to device " + device + ": " + kmio::systemErrorText(error) +
                   "; binding the interface address instead";
        });
        return false;
    }

    sockaddr_in destination_{};
    kmio::Socket socket_;
};

class ConnectionLinux final : public ChannelConnection {
public:
    explicit ConnectionLinux(const std::set<std::uint32_t>& interfaces) : ChannelConnection(interfaces) {
        for (const Channel& channel : channels()) {
            sockets_.push_back(std::make_unique<ChannelSocket>(channel));
        }
        pollSet_.push_back({static_cast<int>(finishEvent().native()), POLLIN, 0});
        for (const auto& socket : sockets_) {
            pollSet_.push_back({socket->fd(), POLLIN, 0});
        }
    }

private:
    bool waitAndReceive(std::vector<std::uint8_t>& data, unsigned& networkId, std::uint32_t& sourceAddress,
                        int timeoutMs) override {
        std::vector<pollfd> fds = pollSet_;
        if (!waitReadable(fds, timeoutMs) || fds[0].revents != 0) {
            return false;
        }
        for (std::size_t k = 1; k < fds.size(); ++k) {
            if (fds[k].revents == 0) {
                continue;
            }
            std::uint8_t buffer[kDatagramBuffer];
            sockaddr_storage from{};
            socklen_t fromLength = sizeof from;
            const ssize_t got = ::recvfrom(fds[k].fd, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC,
                                           reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (got < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    return false;
                }
                throwSocketError("Could not receive datagram", errno);
            }
            if (static_cast<std::size_t>(got) > sizeof buffer) {
                throw DatagramDroppedException("Could not receive datagram: " +
                                               kmio::systemErrorText(EMSGSIZE));
            }
            data.assign(buffer, buffer + got);
            networkId = static_cast<unsigned>(k);
            sourceAddress = kmio::ipv4SenderAddress(from, fromLength);
            return true;
        }
        return false;
    }

    void sendOn(std::size_t index, std::span<const std::uint8_t> datagram) override {
        sockets_[index]->send(datagram);
    }

    void releaseChannels() noexcept override {
        sockets_.clear();
        pollSet_.resize(1);
    }

    // Polls until something is readable or the time-out passes; a signal
    // does not cut the wait short.
    static bool waitReadable(std::vector<pollfd>& fds, int timeoutMs) {
        const std::int64_t deadline = kmio::steadyNowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000;
        int remaining = timeoutMs;
        for (;;) {
            const int ready = ::poll(fds.data(), fds.size(), remaining);
            if (ready > 0) {
                return true;
            }
            if (ready == 0) {
                return false;
            }
            if (errno != EINTR) {
                throwSocketError("Failed to wait for events", errno);
            }
            const std::int64_t left = deadline - kmio::steadyNowNs();
            if (left <= 0) {
                return false;
            }
            remaining = static_cast<int>((left + 999999) / 1000000);
        }
    }

    std::vector<std::unique_ptr<ChannelSocket>> sockets_;
    std::vector<pollfd> pollSet_;  // finish event first, then the channels in id order
};

}  // namespace

std::shared_ptr<Connection> createConnection(const std::set<std::uint32_t>& interfaces) {
    return std::make_shared<ConnectionLinux>(interfaces);
}

}  // namespace kalometnd
