#include "discovery/host.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "discovery/discovery_log.h"
#include "discovery/exceptions.h"
#include "platform/ipv4.h"
#include "platform/join_or_detach.h"
#include "platform/steady_clock.h"

namespace kalometnd {

namespace {

// A receive that fails again without taking anything off the socket (a dead
// socket) makes the thread pause briefly, so that it cannot spin.
constexpr auto kPauseAfterError = std::chrono::milliseconds(50);

template <typename Table>
void cancelTable(Table& table) {
    for (auto& [token, promise] : table) {
        promise.set_exception(std::make_exception_ptr(RequestCancelledException("Cancelled")));
    }
    table.clear();
}

template <typename Table>
auto registerPending(Table& table, const Token& token) {
    auto& promise = table[token];
    promise = {};
    return promise.get_future();
}

}  // namespace

void Host::sleepAfterFailure() {
    std::this_thread::sleep_for(kPauseAfterError);
}

Host::Host(ConnectionFactory makeConnection, PauseAfterFailure pauseAfterFailure)
    : makeConnection_(std::move(makeConnection)),
      pauseAfterFailure_(std::move(pauseAfterFailure)),
      tokenGenerator_(std::random_device{}()) {}

Host::~Host() {
    stop();
    cancelAll();
    kmio::joinOrDetach(thread_);
}

void Host::start(const std::set<std::uint32_t>& interfaces) {
    std::thread leftover;
    {
        const std::lock_guard lock(mutex_);
        if (running_) {
            throw InvalidOperationException("Host already running");
        }
        leftover = std::move(thread_);
    }
    kmio::joinOrDetach(leftover);
    const std::lock_guard lock(mutex_);
    if (running_) {
        throw InvalidOperationException("Host already running");
    }
    connection_ = makeConnection_(interfaces);
    keepReceiving_ = true;
    thread_ = std::thread(&Host::receiveLoop, this, connection_);
    running_ = true;
}

void Host::stop() {
    std::shared_ptr<Connection> connection;
    std::thread thread;
    bool waitForReceiver = false;
    {
        const std::lock_guard lock(mutex_);
        const bool onReceivingThread = thread_.get_id() == std::this_thread::get_id();
        if (connection_) {
            pendingConfigurations_.clear();
            pendingResults_.clear();
            pendingDeviceInfoResults_.clear();
            keepReceiving_ = false;
            running_ = false;
            connection = std::move(connection_);
            waitForReceiver = thread_.joinable() && !onReceivingThread;
        }
        // The receiving thread cannot join itself: when a listener stops the
        // host, the thread ends on its own and a later stop, start or the
        // destructor joins it.
        if (!onReceivingThread) {
            thread = std::move(thread_);
        }
    }
    if (connection) {
        // Wakes the receiving thread at once.
        connection->close(waitForReceiver);
    }
    if (thread.joinable()) {
        thread.join();
    }
}

void Host::cancelAll() {
    const std::lock_guard lock(mutex_);
    cancelTable(pendingConfigurations_);
    cancelTable(pendingResults_);
    cancelTable(pendingDeviceInfoResults_);
}

Token Host::newToken() {
    const std::lock_guard lock(mutex_);
    Token token{};
    for (std::size_t half = 0; half < 2; ++half) {
        const std::uint64_t draw = tokenGenerator_();
        for (std::size_t i = 0; i < 8; ++i) {
            token[half * 8 + i] = static_cast<std::uint8_t>(draw >> (8 * i));
        }
    }
    token[6] = static_cast<std::uint8_t>((token[6] & 0x0F) | 0x40);
    token[8] = static_cast<std::uint8_t>((token[8] & 0x3F) | 0x80);
    return token;
}

Token Host::discover(std::uint32_t selector, std::string_view serialNumber) {
    const Token token = newToken();
    send(0, buildDiscoverRequest(selector, serialNumber, token));
    return token;
}

void Host::send(unsigned networkId, const Packet& packet) {
    std::shared_ptr<Connection> connection;
    {
        const std::lock_guard lock(mutex_);
        connection = connection_;
    }
    if (!connection) {
        throw InvalidOperationException("Host is not running");
    }
    const RawPacket datagram = encode(packet);
    logLazy(kLogPackets, [&] {
        return "Host sending packet over " + connection->networkName(networkId) + ": " + packetText(packet);
    });
    logLazy(kLogRaw, [&] {
        return "Host sending raw packet over " + connection->networkName(networkId) + ": " +
               rawPacketText(datagram);
    });
    connection->send(networkId, datagram);
}

std::future<Host::GetDeviceConfigResult> Host::expectConfiguration(const Token& token) {
    const std::lock_guard lock(mutex_);
    return registerPending(pendingConfigurations_, token);
}

std::future<ResultCode> Host::expectResult(const Token& token) {
    const std::lock_guard lock(mutex_);
    return registerPending(pendingResults_, token);
}

std::future<ResultCode> Host::expectDeviceInfoResult(const Token& token) {
    const std::lock_guard lock(mutex_);
    return registerPending(pendingDeviceInfoResults_, token);
}

Host::ListenerId Host::addListener(Listener listener) {
    const std::lock_guard lock(listenerMutex_);
    const ListenerId id = nextListenerId_++;
    listeners_.emplace(id, std::move(listener));
    return id;
}

void Host::removeListener(ListenerId id) {
    const std::lock_guard lock(listenerMutex_);
    listeners_.erase(id);
}

void Host::receiveLoop(std::shared_ptr<Connection> connection) {
    std::vector<std::uint8_t> datagram;
    bool failedLastTime = false;
    for (;;) {
        {
            // A thread left behind by a stop from its own listener must not
            // pick up the connection of a later start.
            const std::lock_guard lock(mutex_);
            if (!keepReceiving_ || connection_ != connection) {
                return;
            }
        }
        try {
            unsigned networkId = 0;
            std::uint32_t source = 0;
            const bool received = connection->receive(datagram, networkId, source, kReceiveTimeoutMs);
            failedLastTime = false;
            if (received) {
                handleDatagram(*connection, datagram, networkId, source, kmio::steadyNowNs());
            }
        } catch (const std::exception& e) {
            logLazy(kLogErrors, [&] { return std::string("Host receive failed: ") + e.what(); });
            // A flood of oversized datagrams must not make the host deaf:
            // each failure took its datagram away, so read on at once. Any
            // other failure gets one immediate retry, then a pause per repeat.
            if (dynamic_cast<const DatagramDroppedException*>(&e) == nullptr) {
                if (failedLastTime) {
                    pauseAfterFailure_();
                }
                failedLastTime = true;
            }
        }
    }
}

void Host::handleDatagram(Connection& connection, const std::vector<std::uint8_t>& datagram,
                          unsigned networkId, std::uint32_t source, std::int64_t receivedAt) {
    Packet packet;
    const DecodeResult result = decode(datagram, packet);
    const bool valid = result == DecodeResult::Valid;
    logLazy(kLogRaw, [&] {
        return std::string("Host got ") + (valid ? "valid " : "invalid ") + "raw packet over " +
               connection.networkName(networkId) + " from " + kmio::formatIpv4(source) + ": " +
               rawPacketText(datagram);
    });
    if (!valid) {
        return;
    }
    logLazy(kLogPackets, [&] {
        return "Host got packet over " + connection.networkName(networkId) + " from " +
               kmio::formatIpv4(source) + ": " + packetText(packet);
    });
    dispatch(packet, source, receivedAt);
}

void Host::dispatch(const Packet& packet, std::uint32_t source, std::int64_t receivedAt) {
    switch (packet.opcode) {
        case OpCode::Configuration:
            completeConfiguration(packet);
            return;
        case OpCode::Result:
            completeResult(packet);
            return;
        case OpCode::DiscoverReply:
        case OpCode::DiscoverInform: {
            DiscoverInfo info;
            info.selector = packet.selector;
            info.serialNumber = packet.serialNumber;
            DiscoverPayload payload;
            // A malformed text still yields the fixed fields; a short payload yields none.
            readDiscoverPayload(packet, payload);
            info.protocolId = payload.protocolId;
            info.available = payload.available;
            info.port = payload.port;
            info.info = payload.info;
            info.ipAddress = source;
            info.timestamp = receivedAt;
            info.isReply = packet.opcode == OpCode::DiscoverReply;
            notifyListeners(info);
            return;
        }
        default:
            return;
    }
}

void Host::completeConfiguration(const Packet& packet) {
    std::promise<GetDeviceConfigResult> promise;
    {
        const std::lock_guard lock(mutex_);
        const auto found = pendingConfigurations_.find(packet.token);
        if (found == pendingConfigurations_.end()) {
            return;
        }
        promise = std::move(found->second);
        pendingConfigurations_.erase(found);
    }
    DeviceConfig config;
    if (readConfiguration(packet, config)) {
        promise.set_value(config);
    } else {
        promise.set_exception(std::make_exception_ptr(std::runtime_error("Invalid Configuration packet")));
    }
}

void Host::completeResult(const Packet& packet) {
    std::promise<ResultCode> promise;
    {
        const std::lock_guard lock(mutex_);
        auto* table = &pendingResults_;
        auto found = table->find(packet.token);
        if (found == table->end()) {
            table = &pendingDeviceInfoResults_;
            found = table->find(packet.token);
            if (found == table->end()) {
                return;
            }
        }
        promise = std::move(found->second);
        table->erase(found);
    }
    ResultCode code{};
    if (readResultCode(packet, code)) {
        promise.set_value(code);
    } else {
        promise.set_exception(std::make_exception_ptr(std::runtime_error("Invalid Result packet")));
    }
}

void Host::notifyListeners(const DiscoverInfo& info) {
    const std::lock_guard lock(listenerMutex_);
    for (auto it = listeners_.begin(); it != listeners_.end();) {
        if (it->second(info)) {
            ++it;
        } else {
            it = listeners_.erase(it);
        }
    }
}

}  // namespace kalometnd
