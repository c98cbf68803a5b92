#include "sim_interface.h"
#include "platform/socket_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "discovery/packet.h"
#include "options/locator.h"
#include "platform/error_text.h"
#include "platform/interface_addresses.h"

namespace kmiosim {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + kmio::lastSystemErrorText());
}

std::uint32_t netmaskOf(std::uint32_t address) {
    std::vector<kmio::InterfaceAddress> addresses;
    try {
        addresses = kmio::listInterfaceAddresses();
    } catch (const std::system_error& e) {
        throw std::runtime_error("Could not list interfaces: " + kmio::systemErrorText(e.code().value()));
    }
    for (const kmio::InterfaceAddress& entry : addresses) {
        if (entry.address == address && entry.netmask != 0) {
            return entry.netmask;
        }
    }
    throw std::runtime_error(kmio::formatIpv4(address) + " is not the address of a local interface");
}

// Receiving sockets never block the poll loop; the sending one does block
// while its buffer is full, which paces a burst of replies instead of losing it.
kmio::UniqueFd udpSocket(bool nonBlocking) {
    kmio::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), 0));
    if (!fd) {
        fail("Could not create socket");
    }
    return fd;
}

void setInt(const kmio::UniqueFd& fd, int level, int option, int value, const char* what) {
    if (setsockopt(fd.get(), level, option, &value, sizeof value) != 0) {
        fail(what);
    }
}

void bindTo(const kmio::UniqueFd& fd, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in local = kmio::ipv4SocketAddress(address, port);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        fail("Could not bind to " + kmio::formatIpv4(address) + ":" + std::to_string(port));
    }
}

}  // namespace

SimInterface::SimInterface(std::uint32_t address)
    : address_(address), broadcast_(address | ~netmaskOf(address)) {
    broadcastSocket_ = udpSocket(true);
    setInt(broadcastSocket_, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    bindTo(broadcastSocket_, broadcast_, kalometnd::kBroadcastPort);

    multicastSocket_ = udpSocket(true);
    setInt(multicastSocket_, SOL_SOCKET, SO_REUSEADDR, 1, "Could not set SO_REUSEADDR");
    setInt(multicastSocket_, IPPROTO_IP, IP_MULTICAST_ALL, 0, "Could not set IP_MULTICAST_ALL");
    bindTo(multicastSocket_, kalometnd::kMulticastGroup, kalometnd::kMulticastPort);
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(kalometnd::kMulticastGroup);
    membership.imr_interface.s_addr = htonl(address);
    if (setsockopt(multicastSocket_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) !=
        0) {
        fail("Could not join the discovery group");
    }

    sender_ = udpSocket(false);
    setInt(sender_, SOL_SOCKET, SO_BROADCAST, 1, "Could not set SO_BROADCAST");
    setInt(sender_, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "Could not set IP_MULTICAST_LOOP");
    in_addr outgoing{};
    outgoing.s_addr = htonl(address);
    if (setsockopt(sender_.get(), IPPROTO_IP, IP_MULTICAST_IF, &outgoing, sizeof outgoing) != 0) {
        fail("Could not set the multicast interface");
    }
    bindTo(sender_, address, 0);
}

int SimInterface::sendTo(std::uint32_t address, std::uint16_t port,
                         std::span<const std::uint8_t> datagram) const {
    const sockaddr_in to = kmio::ipv4SocketAddress(address, port);
    const ssize_t sent = ::sendto(sender_.get(), datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? errno : 0;
}

int SimInterface::announce(std::span<const std::uint8_t> datagram) const {
    const int broadcastError = sendTo(broadcast_, kalometnd::kBroadcastPort, datagram);
    const int multicastError = sendTo(kalometnd::kMulticastGroup, kalometnd::kMulticastPort, datagram);
    return broadcastError != 0 ? broadcastError : multicastError;
}

}  // namespace kmiosim
