#include "sim_device.h"
#include "platform/socket_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "options/locator.h"
#include "platform/error_text.h"

namespace kmiosim {

SimDevice::SimDevice(std::string serialNumber, std::uint16_t port)
    : serialNumber_(std::move(serialNumber)), port_(port) {}

void SimDevice::listen(std::uint32_t address) {
    const std::string where = kmio::formatIpv4(address) + ":" + std::to_string(port_);
    kmio::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    const sockaddr_in local = kmio::ipv4SocketAddress(address, port_);
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        ::listen(fd.get(), 4) != 0) {
        throw std::runtime_error("Could not listen on " + where + ": " + kmio::lastSystemErrorText());
    }
    listeners_.push_back(std::move(fd));
}

SimDevice::AcceptResult SimDevice::accept(int listenerFd, std::string& peer) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    kmio::UniqueFd fd(
        ::accept4(listenerFd, reinterpret_cast<sockaddr*>(&from), &size, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd) {
        return AcceptResult::Nothing;
    }
    peer = kmio::formatIpv4(ntohl(from.sin_addr.s_addr)) + ":" + std::to_string(ntohs(from.sin_port));
    if (client_) {
        return AcceptResult::Refused;  // fd closes here
    }
    client_ = std::move(fd);
    echo_.clear();
    return AcceptResult::Connected;
}

short SimDevice::clientEvents() const {
    // Stop reading while an echo is still waiting to go out, so that a client
    // that does not read cannot make us buffer without limit.
    return echo_.empty() ? POLLIN : POLLOUT;
}

bool SimDevice::serviceClient(short revents) {
    if (!client_) {
        return false;
    }
    if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0 && echo_.empty()) {
        std::uint8_t buffer[4096];
        const ssize_t got = ::recv(client_.get(), buffer, sizeof buffer, 0);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
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
        const ssize_t sent = ::send(client_.get(), echo_.data(), echo_.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        echo_.erase(echo_.begin(), echo_.begin() + sent);
    }
    return true;
}

}  // namespace kmiosim
