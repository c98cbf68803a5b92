// How the discovery host's thread treats failed receives, with a connection
// that fails as scripted: a failure that consumed its datagram is followed
// at once by the next receive, and a failure that repeats without consuming
// anything is paused on instead of spun on.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
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
    explicit ScriptedHost(int failures, Host::PauseAfterFailure pause = Host::sleepAfterFailure)
        : connection(std::make_shared<FailingConnection<Failure>>(failures)),
          host([c = connection](const std::set<std::uint32_t>&) { return c; }, std::move(pause)) {
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
    std::atomic<int> pauses{0};
    ScriptedHost<DatagramDroppedException> scripted(400, [&] { ++pauses; });
    EXPECT_TRUE(kmiotest::eventually([&] { return scripted.heard.load(); }))
        << scripted.connection->calls() << " receives so far";
    EXPECT_EQ(pauses, 0);
}

// The first failure is retried at once; every repeat after it pauses. The
// fifth pause holds the thread, so the count of receives is exact.
TEST(HostReceiveFailures, RepeatedFailuresWithoutDatagramArePausedOn) {
    std::mutex mutex;
    std::condition_variable changed;
    int pauses = 0;
    bool released = false;
    const auto pause = [&] {
        std::unique_lock lock(mutex);
        ++pauses;
        changed.notify_all();
        changed.wait(lock, [&] { return pauses < 5 || released; });
    };
    {
        ScriptedHost<NetworkException> scripted(1000000, pause);
        bool held = false;
        {
            std::unique_lock lock(mutex);
            held = changed.wait_for(lock, 10s, [&] { return pauses == 5; });
        }
        EXPECT_TRUE(held) << pauses << " pauses";
        EXPECT_EQ(scripted.connection->calls(), 6);
        EXPECT_FALSE(scripted.heard);
        {
            const std::lock_guard lock(mutex);
            released = true;
        }
        changed.notify_all();
    }
}

}  // namespace
}  // namespace kalometnd
