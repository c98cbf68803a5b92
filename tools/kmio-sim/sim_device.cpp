#include "sim_device.h"

#include <utility>

#include "options/locator.h"
#include "sim_net.h"

namespace kmiosim {

SimDevice::SimDevice(std::string serialNumber, std::uint16_t port)
    : serialNumber_(std::move(serialNumber)), port_(port) {}

void SimDevice::listen(std::uint32_t address) {
    listeners_.push_back(tcpListener(address, port_));
}

SimDevice::AcceptResult SimDevice::accept(const kmio::Socket& listener, std::string& peer) {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    kmio::Socket connection = acceptConnection(listener, address, port);
    if (!connection) {
        return AcceptResult::Nothing;
    }
    peer = kmio::formatIpv4(address) + ":" + std::to_string(port);
    if (client_) {
        return AcceptResult::Refused;  // the connection closes here
    }
    client_ = std::move(connection);
    echo_.clear();
    return AcceptResult::Connected;
}

unsigned SimDevice::clientWanted() const {
    // Stop reading while an echo is still waiting to go out, so that a client
    // that does not read cannot make us buffer without limit.
    return echo_.empty() ? kReadable : kWritable;
}

bool SimDevice::serviceClient(unsigned ready) {
    if (!client_) {
        return false;
    }
    if ((ready & (kReadable | kBroken)) != 0 && echo_.empty()) {
        std::uint8_t buffer[4096];
        const std::ptrdiff_t got = receiveStream(client_, buffer);
        if (got == 0 || got == kStreamFailed) {
            client_.reset();
            return false;
        }
        if (got > 0) {
            echo_.assign(buffer, buffer + got);
        }
    }
    if (!flushEcho()) {
        client_.reset();
        return false;
    }
    return true;
}

bool SimDevice::flushEcho() {
    while (!echo_.empty()) {
        const std::ptrdiff_t sent = sendStream(client_, echo_);
        if (sent < 0) {
            return sent == kWouldBlock;
        }
        echo_.erase(echo_.begin(), echo_.begin() + sent);
    }
    return true;
}

}  // namespace kmiosim
