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
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include "discovery/connection.h"
#include "discovery/discovery_log.h"
#include "discovery/exceptions.h"
#include "discovery/packet.h"
#include "platform/error_text.h"
#include "platform/socket_address.h"
#include "platform/steady_clock.h"
#include "platform/unique_fd.h"
#include "platform/wake_event.h"

namespace kalometnd {

namespace {

constexpr std::size_t kDatagramBuffer = 1024;
constexpr int kReceiveBufferBytes = 1 << 20;

enum class ChannelKind : std::uint32_t { Broadcast = 0, Multicast = 1 };

[[noreturn]] void throwSystem(const std::string& what, int error) {
    throw NetworkException(what + ": " + kmio::systemErrorText(error));
}

// The interface that carries an address (loopback included), with its mask.
struct InterfaceOfAddress {
    std::string name;
    std::uint32_t netmask = 0;
};

std::optional<InterfaceOfAddress> findInterface(std::uint32_t address) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        logLazy(kLogErrors,
                [] { return "Could not retrieve list of interfaces: " + kmio::lastSystemErrorText(); });
        return std::nullopt;
    }
    std::optional<InterfaceOfAddress> found;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
        if (ntohl(in->sin_addr.s_addr) != address) {
            continue;
        }
        const auto* mask = reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask);
        found = InterfaceOfAddress{entry->ifa_name, mask != nullptr ? ntohl(mask->sin_addr.s_addr) : 0};
        break;
    }
    freeifaddrs(list);
    return found;
}

void setIntOption(int fd, int level, int option, int value, const char* what) {
    if (setsockopt(fd, level, option, &value, sizeof value) != 0) {
        throwSystem(what, errno);
    }
}

class Channel {
public:
    Channel(std::uint32_t interfaceAddress, ChannelKind kind) : address_(interfaceAddress), kind_(kind) {
        const std::optional<InterfaceOfAddress> iface = findInterface(interfaceAddress);
        const std::uint16_t port = kind == ChannelKind::Broadcast ? kBroadcastPort : kMulticastPort;
        if (kind == ChannelKind::Broadcast) {
            const std::uint32_t broadcast = iface ? (interfaceAddress | ~iface->netmask) : 0;
            destination_ = kmio::ipv4SocketAddress(broadcast, kBroadcastPort);
        } else {
            destination_ = kmio::ipv4SocketAddress(kMulticastGroup, kMulticastPort);
        }

        socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!socket_) {
            throwSystem("Could not create socket", errno);
        }
        const int fd = socket_.get();
        setIntOption(fd, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
        if (kind == ChannelKind::Broadcast) {
            setIntOption(fd, SOL_SOCKET, SO_BROADCAST, 1, "Could not set SO_BROADCAST");
        } else {
            setIntOption(fd, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "Could not set IP_MULTICAST_LOOP");
            setIntOption(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0, "Could not set IP_MULTICAST_ALL");
        }
        raiseReceiveBuffer(fd);

        const bool boundToDevice = iface && bindToDevice(fd, iface->name);
        const sockaddr_in local =
            kmio::ipv4SocketAddress(boundToDevice ? INADDR_ANY : interfaceAddress, port);
        if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
            throwSystem(kind == ChannelKind::Broadcast ? "Could not bind to iface address"
                                                       : "Could not bind to multicast group",
                        errno);
        }
        if (kind == ChannelKind::Multicast) {
            in_addr outgoing{};
            outgoing.s_addr = htonl(interfaceAddress);
            if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof outgoing) != 0) {
                throwSystem("Could not set outgoing interface", errno);
            }
            ip_mreq membership{};
            membership.imr_multiaddr.s_addr = htonl(kMulticastGroup);
            membership.imr_interface.s_addr = htonl(interfaceAddress);
            if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
                throwSystem("Could not join multicast group", errno);
            }
        }
    }

    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel() { ::shutdown(socket_.get(), SHUT_RDWR); }

    int fd() const noexcept { return socket_.get(); }

    std::string name() const {
        const char* kindName = kind_ == ChannelKind::Broadcast ? "Broadcast" : "Multicast";
        return std::string(kindName) + " (" + ipv4Text(address_) + ")";
    }

    void send(std::span<const std::uint8_t> datagram) const {
        const ssize_t sent = ::sendto(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                                      reinterpret_cast<const sockaddr*>(&destination_), sizeof destination_);
        if (sent < 0) {
            throwSystem("Could not send datagram", errno);
        }
    }

private:
    // A burst of replies from many devices must not overflow the default
    // buffer; SO_RCVBUFFORCE passes the system limit when we may.
    static void raiseReceiveBuffer(int fd) {
        const int size = kReceiveBufferBytes;
        if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
            setIntOption(fd, SOL_SOCKET, SO_RCVBUF, size, "Could not set SO_RCVBUF");
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

    std::uint32_t address_;
    ChannelKind kind_;
    sockaddr_in destination_{};
    kmio::UniqueFd socket_;
};

class ConnectionPosix final : public Connection {
public:
    explicit ConnectionPosix(const std::set<std::uint32_t>& interfaces) : finish_(makeFinishEvent()) {
        for (const std::uint32_t address : interfaces) {
            channels_.push_back(std::make_unique<Channel>(address, ChannelKind::Broadcast));
            channels_.push_back(std::make_unique<Channel>(address, ChannelKind::Multicast));
        }
        pollSet_.push_back({finish_->fd(), POLLIN, 0});
        for (const auto& channel : channels_) {
            pollSet_.push_back({channel->fd(), POLLIN, 0});
        }
        open_ = true;
    }

    ~ConnectionPosix() override { close(false); }

    void close(bool wait) override {
        std::unique_lock lock(mutex_);
        open_ = false;
        finish_->signal();
        if (wait) {
            idle_.wait(lock, [this] { return inside_ == 0; });
            channels_.clear();
        }
    }

    std::string networkName(unsigned networkId) const override {
        const std::lock_guard lock(mutex_);
        if (!open_) {
            return "";
        }
        if (networkId > channels_.size()) {
            throw InvalidArgumentException("Network id out of range");
        }
        if (networkId != 0) {
            return channels_[networkId - 1]->name();
        }
        std::string names;
        for (const auto& channel : channels_) {
            names += (names.empty() ? "" : ", ") + channel->name();
        }
        return names;
    }

    bool receive(std::vector<std::uint8_t>& data, unsigned& networkId, std::uint32_t& sourceAddress,
                 int timeoutMs) override {
        const std::optional<Inside> inside = enter();
        if (!inside) {
            return false;
        }
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
                throwSystem("Could not receive datagram", errno);
            }
            if (static_cast<std::size_t>(got) > sizeof buffer) {
                throw DatagramDroppedException("Could not receive datagram: " +
                                               kmio::systemErrorText(EMSGSIZE));
            }
            data.assign(buffer, buffer + got);
            networkId = static_cast<unsigned>(k);
            sourceAddress = 0;
            if (fromLength == sizeof(sockaddr_in) && from.ss_family == AF_INET) {
                sourceAddress = ntohl(reinterpret_cast<const sockaddr_in*>(&from)->sin_addr.s_addr);
            }
            return true;
        }
        return false;
    }

    void send(unsigned networkId, std::span<const std::uint8_t> datagram) override {
        const std::optional<Inside> inside = enter();
        if (!inside) {
            return;
        }
        if (networkId > channels_.size()) {
            throw InvalidArgumentException("Invalid network id");
        }
        if (networkId != 0) {
            channels_[networkId - 1]->send(datagram);
            return;
        }
        for (const auto& channel : channels_) {
            channel->send(datagram);
        }
    }

private:
    // Counts a caller inside receive or send for as long as it lives, so
    // that close(true) knows when the sockets are no longer in use.
    class Inside {
    public:
        explicit Inside(ConnectionPosix& owner) : owner_(&owner) {}
        Inside(Inside&& other) noexcept : owner_(std::exchange(other.owner_, nullptr)) {}
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
        Inside& operator=(Inside&&) = delete;
        ~Inside() {
            if (owner_ != nullptr) {
                owner_->leave();
            }
        }

    private:
        ConnectionPosix* owner_;
    };

    static std::unique_ptr<kmio::WakeEvent> makeFinishEvent() {
        try {
            return std::make_unique<kmio::WakeEvent>();
        } catch (const std::system_error& e) {
            throwSystem("Could not create event", e.code().value());
        }
    }

    std::optional<Inside> enter() {
        const std::lock_guard lock(mutex_);
        if (!open_) {
            return std::nullopt;
        }
        ++inside_;
        return std::optional<Inside>(std::in_place, *this);
    }

    void leave() {
        const std::lock_guard lock(mutex_);
        if (--inside_ == 0) {
            idle_.notify_all();
        }
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
                throwSystem("Failed to wait for events", errno);
            }
            const std::int64_t left = deadline - kmio::steadyNowNs();
            if (left <= 0) {
                return false;
            }
            remaining = static_cast<int>((left + 999999) / 1000000);
        }
    }

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    bool open_ = false;
    std::uint32_t inside_ = 0;
    std::unique_ptr<kmio::WakeEvent> finish_;
    std::vector<std::unique_ptr<Channel>> channels_;
    std::vector<pollfd> pollSet_;  // finish event first, then the channels in id order
};

}  // namespace

std::shared_ptr<Connection> createConnection(const std::set<std::uint32_t>& interfaces) {
    return std::make_shared<ConnectionPosix>(interfaces);
}

}  // namespace kalometnd
