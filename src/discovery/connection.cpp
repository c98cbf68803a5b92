// The portable part of the discovery connection: channel ids and names, and
// the open flag with the count of callers inside that close(true) waits for.
#include <system_error>
#include <utility>

#include "discovery/connection.h"
#include "discovery/discovery_log.h"
#include "discovery/exceptions.h"
#include "discovery/packet.h"
#include "platform/error_text.h"
#include "platform/ipv4.h"
#include "platform/process_exit.h"

namespace kalometnd {

namespace {

std::string channelName(const ChannelConnection::Channel& channel) {
    const char* kind = channel.kind == ChannelConnection::Kind::Broadcast   ? "Broadcast"
                       : channel.kind == ChannelConnection::Kind::Multicast ? "Multicast"
                                                                            : "Unknown";
    return std::string(kind) + " (" + kmio::formatIpv4(channel.interfaceAddress) + ")";
}

}  // namespace

// Counts a caller inside receive or send for as long as it lives, so that
// close(true) knows when the sockets are no longer in use.
class ChannelConnection::Inside {
public:
    explicit Inside(ChannelConnection& owner) : owner_(owner) {}
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() { owner_.leave(); }

private:
    ChannelConnection& owner_;
};

ChannelConnection::ChannelConnection(const std::set<std::uint32_t>& interfaces) : finish_(makeFinishEvent()) {
    for (const std::uint32_t address : interfaces) {
        channels_.push_back({address, Kind::Broadcast});
        channels_.push_back({address, Kind::Multicast});
    }
}

// No caller can be inside any more: the last reference is gone. The derived
// part has already closed its sockets.
ChannelConnection::~ChannelConnection() = default;

kmio::WakeEvent ChannelConnection::makeFinishEvent() {
    try {
        return kmio::WakeEvent();
    } catch (const std::system_error& e) {
        throw NetworkException("Could not create event: " + kmio::systemErrorText(e.code().value()));
    }
}

void ChannelConnection::close(bool wait) {
    std::unique_lock lock(mutex_);
    open_ = false;
    if (!finish_.signal()) {
        logLazy(kLogErrors,
                [] { return "Could not signal connection to finish: " + kmio::lastSystemErrorText(); });
    }
    if (wait) {
        // At process exit on Windows a caller counted inside may be a thread
        // that was ended in the call: it will never leave.
        if (!kmio::processIsExiting()) {
            idle_.wait(lock, [this] { return inside_ == 0; });
        }
        releaseChannels();
    }
}

std::string ChannelConnection::networkName(unsigned networkId) const {
    const std::lock_guard lock(mutex_);
    if (!open_) {
        return "";
    }
    if (networkId > channels_.size()) {
        throw InvalidArgumentException("Network id out of range");
    }
    if (networkId != 0) {
        return channelName(channels_[networkId - 1]);
    }
    std::string names;
    for (const Channel& channel : channels_) {
        names += (names.empty() ? "" : ", ") + channelName(channel);
    }
    return names;
}

bool ChannelConnection::receive(std::vector<std::uint8_t>& data, unsigned& networkId,
                                std::uint32_t& sourceAddress, int timeoutMs) {
    if (!enter()) {
        return false;
    }
    const Inside inside(*this);
    return waitAndReceive(data, networkId, sourceAddress, timeoutMs);
}

void ChannelConnection::send(unsigned networkId, std::span<const std::uint8_t> datagram) {
    if (!enter()) {
        return;
    }
    const Inside inside(*this);
    if (networkId > channels_.size()) {
        throw InvalidArgumentException("Invalid network id");
    }
    if (networkId != 0) {
        sendOn(networkId - 1, datagram);
        return;
    }
    for (std::size_t index = 0; index < channels_.size(); ++index) {
        sendOn(index, datagram);
    }
}

bool ChannelConnection::enter() {
    const std::lock_guard lock(mutex_);
    if (!open_) {
        return false;
    }
    ++inside_;
    return true;
}

void ChannelConnection::leave() {
    const std::lock_guard lock(mutex_);
    if (--inside_ == 0) {
        idle_.notify_all();
    }
}

}  // namespace kalometnd
