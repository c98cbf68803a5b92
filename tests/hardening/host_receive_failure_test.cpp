// How the discovery host's thread treats failed receives, with a connection
// that fails as scripted: a failure that consumed its datagram is followed
// at once by the next receive, and a failure that repeats without consuming
// anything is paused on instead of spun on.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "discovery/connection.h"
#include "discovery/exceptions.h"
#include "discovery/host.h"
#include "discovery/packet.h"
#include "support/checks.h"

namespace kalometnd {
namespace {

using namespace std::chrono_literals;

// Fails `failures` receives with the given exception, then hands over one
// Discover Inform, then waits like an idle socket.
template <class Failure>
class FailingConnection final : public Connection {
public:
    explicit FailingConnection(int failures) : failures_(failures) {}

    void close(bool) override { closed_ = true; }
    std::string networkName(unsigned) const override { return "Scripted"; }
    void send(unsigned, std::span<const std::uint8_t>) override {}

    bool receive(std::vector<std::uint8_t>& data, unsigned& networkId, std::uint32_t& source, int) override {
        ++calls_;
        if (failures_ > 0) {
            --failures_;
            throw Failure("Could not receive datagram: scripted");
        }
        if (!delivered_.exchange(true)) {
            data = encode(buildDiscoverInform(7, "HZ0001", {42, true, 55550, "scripted"}));
            networkId = 1;
            source = 0x7F000001;
            return true;
        }
        std::this_thread::sleep_for(closed_ ? 0ms : 5ms);
        return false;
    }

    int calls() const { return calls_; }

private:
    std::atomic<int> failures_;
    std::atomic<int> calls_{0};
    std::atomic<bool> delivered_{false};
    std::atomic<bool> closed_{false};
};

template <class Failure>
struct ScriptedHost {
    explicit ScriptedHost(int failures)
        : connection(std::make_shared<FailingConnection<Failure>>(failures)),
          host([c = connection](const std::set<std::uint32_t>&) { return c; }) {
        host.addListener([this](const DiscoverInfo&) {
            heard = true;
            return true;
        });
        host.start({0x7F000001});
    }
    ~ScriptedHost() { host.stop(); }

    std::shared_ptr<FailingConnection<Failure>> connection;
    std::atomic<bool> heard{false};
    Host host;
};

TEST(HostReceiveFailures, DroppedDatagramsAreReadPastWithoutPausing) {
    // 400 failures with a 50 ms pause each would take 20 s.
    ScriptedHost<DatagramDroppedException> scripted(400);
    EXPECT_TRUE(kmiotest::eventually([&] { return scripted.heard.load(); }))
        << scripted.connection->calls() << " receives so far";
}

TEST(HostReceiveFailures, RepeatedFailuresWithoutDatagramArePausedOn) {
    ScriptedHost<NetworkException> scripted(1000000);
    std::this_thread::sleep_for(1s);
    // A pause of 50 ms per repeat allows about 20 in a second; a spinning
    // thread makes hundreds of thousands.
    EXPECT_LT(scripted.connection->calls(), 200);
    EXPECT_GE(scripted.connection->calls(), 2);
    EXPECT_FALSE(scripted.heard);
}

}  // namespace
}  // namespace kalometnd
