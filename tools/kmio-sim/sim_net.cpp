// The socket calls of the simulator that read the same on every system.
#include <cstddef>
#include <stdexcept>
#include <string>

#include "platform/error_text.h"
#include "platform/ipv4.h"
#include "platform/socket_address.h"
#include "platform/socket_api.h"
#include "platform/socket_options.h"
#include "sim_net.h"
#include "sim_net_platform.h"

namespace kmiosim {

namespace {

kmio::Socket udpSocket(bool nonBlocking) {
    kmio::Socket socket = newSocket(SOCK_DGRAM, nonBlocking);
    if (!socket) {
        failWithLastError("Could not create socket");
    }
    return socket;
}

void setInt(const kmio::Socket& socket, int level, int option, int value, const char* what) {
    if (kmio::setSocketInt(socket, level, option, value) != 0) {
        failWithLastError(what);
    }
}

void bindTo(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port) {
    if (kmio::bindIpv4(socket, address, port) != 0) {
        failWithLastError("Could not bind to " + kmio::formatIpv4(address) + ":" + std::to_string(port));
    }
}

// A failed stream call: kWouldBlock when it may work later, else kStreamFailed.
std::ptrdiff_t streamFailure() {
    return isWouldBlock(kmio::lastSocketError()) ? kWouldBlock : kStreamFailed;
}

}  // namespace

void failWithLastError(const std::string& what) {
    throw std::runtime_error(what + ": " + kmio::systemErrorText(kmio::lastSocketError()));
}

kmio::Socket broadcastReceiver(std::uint32_t broadcastAddress, std::uint16_t port) {
    kmio::Socket socket = udpSocket(true);
    setInt(socket, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    bindTo(socket, receiverBindAddress(broadcastAddress), port);
    return socket;
}

kmio::Socket multicastReceiver(std::uint32_t group, std::uint16_t port, std::uint32_t interfaceAddress) {
    kmio::Socket socket = udpSocket(true);
    setInt(socket, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    receiveJoinedGroupsOnly(socket);
    bindTo(socket, receiverBindAddress(group), port);
    if (kmio::joinMulticastGroup(socket, group, interfaceAddress) != 0) {
        failWithLastError("Could not join the discovery group");
    }
    return socket;
}

kmio::Socket datagramSender(std::uint32_t interfaceAddress) {
    kmio::Socket socket = udpSocket(false);
    setInt(socket, SOL_SOCKET, SO_BROADCAST, 1, "Could not set SO_BROADCAST");
    setInt(socket, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "Could not set IP_MULTICAST_LOOP");
    if (kmio::setMulticastInterface(socket, interfaceAddress) != 0) {
        failWithLastError("Could not set the multicast interface");
    }
    bindTo(socket, interfaceAddress, 0);
    return socket;
}

std::ptrdiff_t receiveDatagram(const kmio::Socket& socket, std::span<std::uint8_t> buffer,
                               std::uint32_t& from, std::uint16_t& fromPort) {
    sockaddr_in sender{};
    socklen_t size = sizeof sender;
    const auto got = ::recvfrom(kmio::nativeSocket(socket), reinterpret_cast<char*>(buffer.data()),
                                static_cast<kmio::SocketIoLength>(buffer.size()), 0,
                                reinterpret_cast<sockaddr*>(&sender), &size);
    from = ntohl(sender.sin_addr.s_addr);
    fromPort = ntohs(sender.sin_port);
    return got < 0 ? -1 : got;
}

int sendDatagram(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port,
                 std::span<const std::uint8_t> datagram) {
    const sockaddr_in to = kmio::ipv4SocketAddress(address, port);
    const auto sent = ::sendto(kmio::nativeSocket(socket), reinterpret_cast<const char*>(datagram.data()),
                               static_cast<kmio::SocketIoLength>(datagram.size()), 0,
                               reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? kmio::lastSocketError() : 0;
}

kmio::Socket tcpListener(std::uint32_t address, std::uint16_t port) {
    const std::string where = kmio::formatIpv4(address) + ":" + std::to_string(port);
    kmio::Socket socket = newSocket(SOCK_STREAM, true);
    if (!socket || kmio::setSocketInt(socket, SOL_SOCKET, SO_REUSEADDR, 1) != 0 ||
        kmio::bindIpv4(socket, address, port) != 0 || ::listen(kmio::nativeSocket(socket), 4) != 0) {
        failWithLastError("Could not listen on " + where);
    }
    return socket;
}

std::ptrdiff_t receiveStream(const kmio::Socket& socket, std::span<std::uint8_t> buffer) {
    const auto got = ::recv(kmio::nativeSocket(socket), reinterpret_cast<char*>(buffer.data()),
                            static_cast<kmio::SocketIoLength>(buffer.size()), 0);
    return got < 0 ? streamFailure() : got;
}

std::ptrdiff_t sendStream(const kmio::Socket& socket, std::span<const std::uint8_t> data) {
    const auto sent = ::send(kmio::nativeSocket(socket), reinterpret_cast<const char*>(data.data()),
                             static_cast<kmio::SocketIoLength>(data.size()), streamSendFlags());
    return sent < 0 ? streamFailure() : sent;
}

}  // namespace kmiosim
