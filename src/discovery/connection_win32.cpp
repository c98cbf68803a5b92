// The discovery transport on WinSock 2.
//
// Each channel socket is bound to its interface's own address and tied to a
// WinSock event for read and close notifications; receive waits on the
// finish event and the channel events together with WSAWaitForMultipleEvents,
// finish event first, channels in id order.

#include <winsock2.h>
#include <ws2tcpip.h>

#include <memory>
#include <system_error>
#include <utility>

#include "discovery/channel_socket_setup.h"
#include "discovery/connection.h"
#include "discovery/discovery_log.h"
#include "discovery/exceptions.h"
#include "discovery/packet.h"
#include "platform/error_text.h"
#include "platform/socket.h"
#include "platform/socket_address.h"

namespace kalometnd {

namespace {

constexpr int kDatagramBuffer = 1024;
// SIO_GET_INTERFACE_LIST answers with INTERFACE_INFO entries; 1216 bytes
// hold 16 of them on either width.
constexpr DWORD kInterfaceListBytes = 1216;

[[noreturn]] void throwLastSocketError(const std::string& what) {
    throwSocketError(what, ::WSAGetLastError());
}

using Kind = ChannelConnection::Kind;

// The directed broadcast address of the interface with the given address, as
// the socket layer's interface list gives its mask; 0.0.0.0 when it cannot
// be found, which only means that broadcasts go nowhere.
std::uint32_t broadcastAddressOf(std::uint32_t interfaceAddress) {
    const kmio::Socket probe(static_cast<kmio::Socket::Native>(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)));
    if (!probe) {
        const int error = ::WSAGetLastError();
        logLazy(kLogErrors, [&] {
            return "Could not create socket to find broadcast address: " + kmio::systemErrorText(error);
        });
        return 0;
    }
    alignas(INTERFACE_INFO) char list[kInterfaceListBytes] = {};
    DWORD returned = 0;
    if (::WSAIoctl(static_cast<SOCKET>(probe.get()), SIO_GET_INTERFACE_LIST, nullptr, 0, list, sizeof list,
                   &returned, nullptr, nullptr) != 0) {
        const int error = ::WSAGetLastError();
        logLazy(kLogErrors,
                [&] { return "Could not retrieve list of interfaces: " + kmio::systemErrorText(error); });
        return 0;
    }
    const auto* entries = reinterpret_cast<const INTERFACE_INFO*>(list);
    const std::size_t count = returned / sizeof(INTERFACE_INFO);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t address = ntohl(entries[i].iiAddress.AddressIn.sin_addr.s_addr);
        if (address == interfaceAddress) {
            return address | ~ntohl(entries[i].iiNetmask.AddressIn.sin_addr.s_addr);
        }
    }
    return 0;
}

// A WinSock event object, closed when destroyed.
class SocketEvent {
public:
    SocketEvent() : handle_(::WSACreateEvent()) {
        if (handle_ == WSA_INVALID_EVENT) {
            throwLastSocketError("Could not create event");
        }
    }
    SocketEvent(const SocketEvent&) = delete;
    SocketEvent& operator=(const SocketEvent&) = delete;
    ~SocketEvent() { ::WSACloseEvent(handle_); }

    WSAEVENT get() const noexcept { return handle_; }

private:
    WSAEVENT handle_;
};

// The socket of one channel, bound to its interface address, with its event.
class ChannelSocket {
public:
    explicit ChannelSocket(const ChannelConnection::Channel& channel) {
        const std::uint32_t interfaceAddress = channel.interfaceAddress;
        const bool broadcast = channel.kind == Kind::Broadcast;
        destination_ = channelDestination(channel.kind, broadcast ? broadcastAddressOf(interfaceAddress) : 0);

        socket_.reset(static_cast<kmio::Socket::Native>(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)));
        if (!socket_) {
            throwLastSocketError("Could not create socket");
        }
        event_ = std::make_unique<SocketEvent>();
        if (::WSAEventSelect(handle(), event_->get(), FD_READ | FD_CLOSE) != 0) {
            throwLastSocketError("Could not associate event with socket");
        }
        setChannelOptions(socket_, channel.kind);
        bindChannel(socket_, channel.kind, interfaceAddress);
        if (!broadcast) {
            joinChannelGroup(socket_, interfaceAddress);
        }
    }

    ChannelSocket(const ChannelSocket&) = delete;
    ChannelSocket& operator=(const ChannelSocket&) = delete;
    // The socket is shut down and closed before its event goes.
    ~ChannelSocket() {
        socket_.shutdownBoth();
        socket_.reset();
    }

    SOCKET handle() const noexcept { return static_cast<SOCKET>(socket_.get()); }
    WSAEVENT event() const noexcept { return event_->get(); }

    void send(std::span<const std::uint8_t> datagram) const {
        if (::sendto(handle(), reinterpret_cast<const char*>(datagram.data()),
                     static_cast<int>(datagram.size()), 0, reinterpret_cast<const sockaddr*>(&destination_),
                     sizeof destination_) == SOCKET_ERROR) {
            throwLastSocketError("Could not send datagram");
        }
    }

private:
    sockaddr_in destination_{};
    kmio::Socket socket_;
    std::unique_ptr<SocketEvent> event_;
};

class ConnectionWinSock2 final : public ChannelConnection {
public:
    explicit ConnectionWinSock2(const std::set<std::uint32_t>& interfaces) : ChannelConnection(interfaces) {
        try {
            kmio::startSocketLibrary();
        } catch (const std::system_error& e) {
            throwSocketError("Could not initialize WinSock2", e.code().value());
        }
        for (const Channel& channel : channels()) {
            sockets_.push_back(std::make_unique<ChannelSocket>(channel));
        }
        events_.push_back(reinterpret_cast<WSAEVENT>(finishEvent().native()));
        for (const auto& socket : sockets_) {
            events_.push_back(socket->event());
        }
    }

    ~ConnectionWinSock2() override { sockets_.clear(); }

private:
    bool waitAndReceive(std::vector<std::uint8_t>& data, unsigned& networkId, std::uint32_t& sourceAddress,
                        int timeoutMs) override {
        const DWORD result = ::WSAWaitForMultipleEvents(static_cast<DWORD>(events_.size()), events_.data(),
                                                        FALSE, static_cast<DWORD>(timeoutMs), FALSE);
        if (result == WSA_WAIT_FAILED) {
            throwLastSocketError("Failed to wait for events");
        }
        if (result == WSA_WAIT_TIMEOUT || result == WSA_WAIT_EVENT_0) {
            return false;
        }
        const std::size_t k = result - WSA_WAIT_EVENT_0;
        if (k >= events_.size()) {
            throwLastSocketError("Unexpected event");
        }
        const ChannelSocket& channel = *sockets_[k - 1];
        WSANETWORKEVENTS happened{};
        if (::WSAEnumNetworkEvents(channel.handle(), channel.event(), &happened) != 0) {
            throwLastSocketError("Could not determine event type");
        }
        if ((happened.lNetworkEvents & FD_CLOSE) != 0) {
            throwSocketError("Socket was closed externally", happened.iErrorCode[FD_CLOSE_BIT]);
        }
        if ((happened.lNetworkEvents & FD_READ) != 0 && happened.iErrorCode[FD_READ_BIT] != 0) {
            throwSocketError("Could not read from socket", happened.iErrorCode[FD_READ_BIT]);
        }
        if (!::WSAResetEvent(channel.event())) {
            throwLastSocketError("Could not reset event");
        }
        char buffer[kDatagramBuffer];
        sockaddr_storage from{};
        int fromLength = sizeof from;
        const int got = ::recvfrom(channel.handle(), buffer, sizeof buffer, 0,
                                   reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (got == SOCKET_ERROR) {
            const int error = ::WSAGetLastError();
            if (error == WSAEWOULDBLOCK) {
                // The event fired for a datagram another wake-up already took.
                return false;
            }
            throwSocketError("Could not receive datagram", error);
        }
        data.assign(buffer, buffer + got);
        networkId = static_cast<unsigned>(k);
        sourceAddress = kmio::ipv4SenderAddress(from, static_cast<std::size_t>(fromLength));
        return true;
    }

    void sendOn(std::size_t index, std::span<const std::uint8_t> datagram) override {
        sockets_[index]->send(datagram);
    }

    void releaseChannels() noexcept override {
        sockets_.clear();
        events_.resize(1);
    }

    std::vector<std::unique_ptr<ChannelSocket>> sockets_;
    std::vector<WSAEVENT> events_;  // finish event first, then the channels in id order
};

}  // namespace

std::shared_ptr<Connection> createConnection(const std::set<std::uint32_t>& interfaces) {
    return std::make_shared<ConnectionWinSock2>(interfaces);
}

}  // namespace kalometnd
