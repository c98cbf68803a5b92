#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "discovery/connection.h"
#include "discovery/packet.h"

namespace kalometnd {

// One device, as told by one Discover Reply or Discover Inform.
struct DiscoverInfo {
    // The packet header's selector: the device's own value (its device type
    // in enumeration records).
    std::uint32_t selector = 0;
    std::string serialNumber;
    // From the discover payload; 0, false, 0 when the payload is shorter than 6 bytes.
    std::uint8_t protocolId = 0;
    bool available = false;
    std::uint16_t port = 0;
    // Empty when the payload's text is malformed.
    std::string info;
    // The datagram's source address, host order.
    std::uint32_t ipAddress = 0;
    // Monotonic clock at reception, nanoseconds (kmio::steadyNowNs).
    std::int64_t timestamp = 0;
    // Discover Reply (true) or Discover Inform (false).
    bool isReply = false;
};

// The host side of the ND protocol: one connection over the chosen
// interfaces and one receiving thread that hands every Discover Reply and
// Inform to the listeners and completes pending requests by token.
//
// start, stop, discover, send and the listener calls may come from any
// thread. Listeners run on the receiving thread while the listener lock is
// held: they must not add or remove listeners, nor destroy the host.
class Host {
public:
    using GetDeviceConfigResult = DeviceConfig;
    // Returns false to be removed.
    using Listener = std::function<bool(const DiscoverInfo&)>;
    using ListenerId = std::uint64_t;

    // How long one receive waits before the thread looks at its stop flag
    // again; stop does not wait for it, closing the connection wakes the thread.
    static constexpr int kReceiveTimeoutMs = 5000;

    // What the receiving thread does between repeated receive failures (other
    // than dropped datagrams), so that a broken socket cannot make it spin:
    // by default it sleeps 50 ms. Tests hand in their own to count the pauses.
    using PauseAfterFailure = std::function<void()>;
    static void sleepAfterFailure();

    explicit Host(ConnectionFactory makeConnection = createConnection,
                  PauseAfterFailure pauseAfterFailure = sleepAfterFailure);
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    // Stops, then cancels whatever is still pending.
    ~Host();

    // Opens the connection over the interfaces (host order) and starts the
    // receiving thread. Throws InvalidOperationException "Host already
    // running", or the connection's NetworkException.
    void start(const std::set<std::uint32_t>& interfaces);

    // Fails pending requests as broken promises, closes the connection and
    // joins the thread (unless called on it). Does nothing when stopped.
    void stop();

    // Fails every pending request with RequestCancelledException "Cancelled".
    void cancelAll();

    // Sends a Discover Request with a new token on every channel and returns the token.
    Token discover(std::uint32_t selector, std::string_view serialNumber);

    // Sends a packet on one channel or all (0). Throws InvalidOperationException
    // "Host is not running", and the connection's exceptions.
    void send(unsigned networkId, const Packet& packet);

    // A fresh version-4 UUID for a request.
    Token newToken();

    // Pending requests. Register the token before sending the request that
    // carries it; the future completes when the reply with the same token
    // arrives. It fails with std::runtime_error "Invalid Configuration packet"
    // / "Invalid Result packet" when the reply's payload is malformed, with
    // RequestCancelledException after cancelAll, and as a broken promise after stop.
    //
    // Get Configuration: answered by a Configuration packet.
    std::future<GetDeviceConfigResult> expectConfiguration(const Token& token);
    // Set Configuration and Reset Configuration: answered by a Result packet.
    std::future<ResultCode> expectResult(const Token& token);
    // Set Device Info: answered by a Result packet (a table of its own, looked
    // up after the configuration results).
    std::future<ResultCode> expectDeviceInfoResult(const Token& token);

    ListenerId addListener(Listener listener);
    // An unknown id is ignored.
    void removeListener(ListenerId id);

private:
    void receiveLoop(std::shared_ptr<Connection> connection);
    void handleDatagram(Connection& connection, const std::vector<std::uint8_t>& datagram, unsigned networkId,
                        std::uint32_t source, std::int64_t receivedAt);
    void dispatch(const Packet& packet, std::uint32_t source, std::int64_t receivedAt);
    void completeConfiguration(const Packet& packet);
    void completeResult(const Packet& packet);
    void notifyListeners(const DiscoverInfo& info);

    ConnectionFactory makeConnection_;
    PauseAfterFailure pauseAfterFailure_;

    mutable std::mutex mutex_;
    bool running_ = false;
    bool keepReceiving_ = false;
    std::shared_ptr<Connection> connection_;
    std::thread thread_;
    std::mt19937_64 tokenGenerator_;
    std::map<Token, std::promise<GetDeviceConfigResult>> pendingConfigurations_;
    std::map<Token, std::promise<ResultCode>> pendingResults_;
    std::map<Token, std::promise<ResultCode>> pendingDeviceInfoResults_;

    std::mutex listenerMutex_;
    std::map<ListenerId, Listener> listeners_;
    ListenerId nextListenerId_ = 1;
};

}  // namespace kalometnd
