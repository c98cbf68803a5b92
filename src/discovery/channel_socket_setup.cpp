#include "discovery/channel_socket_setup.h"

#include "discovery/exceptions.h"
#include "discovery/packet.h"
#include "platform/error_text.h"
#include "platform/socket_api.h"
#include "platform/socket_options.h"

namespace kalometnd {

namespace {

using Kind = ChannelConnection::Kind;

void setChannelInt(const kmio::Socket& socket, int level, int option, int value, const char* what) {
    throwIfFailed(kmio::setSocketInt(socket, level, option, value), what);
}

}  // namespace

void throwSocketError(const std::string& what, int error) {
    throw NetworkException(what + ": " + kmio::systemErrorText(error));
}

void throwIfFailed(int error, const std::string& what) {
    if (error != 0) {
        throwSocketError(what, error);
    }
}

sockaddr_in channelDestination(Kind kind, std::uint32_t broadcastAddress) {
    return kind == Kind::Broadcast ? kmio::ipv4SocketAddress(broadcastAddress, kBroadcastPort)
                                   : kmio::ipv4SocketAddress(kMulticastGroup, kMulticastPort);
}

void setChannelOptions(const kmio::Socket& socket, Kind kind) {
    setChannelInt(socket, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    if (kind == Kind::Broadcast) {
        setChannelInt(socket, SOL_SOCKET, SO_BROADCAST, 1, "Could not set SO_BROADCAST");
    } else {
        setChannelInt(socket, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "Could not set IP_MULTICAST_LOOP");
    }
}

void bindChannel(const kmio::Socket& socket, Kind kind, std::uint32_t address) {
    const bool broadcast = kind == Kind::Broadcast;
    throwIfFailed(kmio::bindIpv4(socket, address, broadcast ? kBroadcastPort : kMulticastPort),
                  broadcast ? "Could not bind to iface address" : "Could not bind to multicast group");
}

void joinChannelGroup(const kmio::Socket& socket, std::uint32_t interfaceAddress) {
    throwIfFailed(kmio::setMulticastInterface(socket, interfaceAddress), "Could not set outgoing interface");
    throwIfFailed(kmio::joinMulticastGroup(socket, kMulticastGroup, interfaceAddress),
                  "Could not join multicast group");
}

}  // namespace kalometnd
