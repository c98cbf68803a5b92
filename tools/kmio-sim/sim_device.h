#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/socket.h"

namespace kmiosim {

// One simulated device: its identity and its data link, a TCP echo server
// that serves one client at a time. The device is available exactly while no
// client is connected.
class SimDevice {
public:
    SimDevice(std::string serialNumber, std::uint16_t port);

    const std::string& serialNumber() const { return serialNumber_; }
    std::uint16_t port() const { return port_; }
    bool available() const { return !client_; }

    // Opens a TCP listener on address:port(). Throws std::runtime_error.
    void listen(std::uint32_t address);
    const std::vector<kmio::Socket>& listeners() const { return listeners_; }

    enum class AcceptResult { Nothing, Connected, Refused };

    // Takes the pending connection of one listener. While a client is
    // connected another one is accepted and closed at once, so it sees the
    // device refuse instead of waiting in the backlog. Fills the peer's text.
    AcceptResult accept(const kmio::Socket& listener, std::string& peer);

    // The connected client (invalid when none), and what to poll it for
    // (Readiness bits).
    const kmio::Socket& client() const { return client_; }
    unsigned clientWanted() const;

    // Moves bytes for the client after poll reported it ready. Returns false
    // when the client has gone (the device is available again).
    bool serviceClient(unsigned ready);

private:
    bool flushEcho();

    std::string serialNumber_;
    std::uint16_t port_;
    std::vector<kmio::Socket> listeners_;
    kmio::Socket client_;
    std::vector<std::uint8_t> echo_;  // received bytes not yet sent back
};

}  // namespace kmiosim
