#include "sim_interface.h"

#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "discovery/packet.h"
#include "options/locator.h"
#include "platform/error_text.h"
#include "platform/interface_addresses.h"
#include "sim_net.h"

namespace kmiosim {

namespace {

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

}  // namespace

SimInterface::SimInterface(std::uint32_t address)
    : address_(address),
      broadcast_(address | ~netmaskOf(address)),
      broadcastSocket_(broadcastReceiver(broadcast_, kalometnd::kBroadcastPort)),
      multicastSocket_(multicastReceiver(kalometnd::kMulticastGroup, kalometnd::kMulticastPort, address)),
      sender_(datagramSender(address)) {}

int SimInterface::sendTo(std::uint32_t address, std::uint16_t port,
                         std::span<const std::uint8_t> datagram) const {
    return sendDatagram(sender_, address, port, datagram);
}

int SimInterface::announce(std::span<const std::uint8_t> datagram) const {
    const int broadcastError = sendTo(broadcast_, kalometnd::kBroadcastPort, datagram);
    const int multicastError = sendTo(kalometnd::kMulticastGroup, kalometnd::kMulticastPort, datagram);
    return broadcastError != 0 ? broadcastError : multicastError;
}

}  // namespace kmiosim
