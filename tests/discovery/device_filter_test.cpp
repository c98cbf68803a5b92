#include "discovery/device_filter.h"

#include <gtest/gtest.h>

#include "nd_test_support.h"
#include "platform/steady_clock.h"

namespace kalometnd {
namespace {

using namespace std::chrono_literals;

DiscoverInfo record(const std::string& serial, bool available = true, std::int64_t timestamp = 0) {
    DiscoverInfo r;
    r.serialNumber = serial;
    r.ipAddress = 0x0A000005;
    r.port = 55550;
    r.selector = 7;
    r.protocolId = 42;
    r.available = available;
    r.timestamp = timestamp;
    return r;
}

// Records every callback as a line, e.g. "added A", "changed A 1", "removed A".
struct Events {
    std::mutex mutex;
    std::vector<std::string> lines;
    DeviceFilter* filter = nullptr;

    void add(std::string line) {
        const std::lock_guard lock(mutex);
        lines.push_back(std::move(line));
    }
    std::vector<std::string> take() {
        const std::lock_guard lock(mutex);
        return std::exchange(lines, {});
    }
    DeviceFilter::Callbacks callbacks() {
        DeviceFilter::Callbacks c;
        // Reading the list from a callback would deadlock if callbacks ran under the lock.
        c.onAdded = [this](const DiscoverInfo& r) {
            add("added " + r.serialNumber + " (" + std::to_string(filter->devices().size()) + ")");
        };
        c.onChanged = [this](const DiscoverInfo& r, DeviceFilter::ChangeFlags f) {
            add("changed " + r.serialNumber + " " + std::to_string(f.bits()) + " " +
                (r.available ? "on" : "off"));
        };
        c.onRemoved = [this](const DiscoverInfo& r) {
            add("removed " + r.serialNumber + " (" + std::to_string(filter->devices().size()) + ")");
        };
        return c;
    }
};

class FilterTest : public ::testing::Test {
protected:
    std::unique_ptr<DeviceFilter> make(DeviceFilter::Criteria criteria) {
        auto filter = std::make_unique<DeviceFilter>(host, criteria, events.callbacks());
        events.filter = filter.get();
        return filter;
    }
    std::vector<std::string> serials(const DeviceFilter& f) {
        std::vector<std::string> out;
        for (const auto& d : f.devices()) {
            out.push_back(d.serialNumber);
        }
        return out;
    }

    std::shared_ptr<Host> host = std::make_shared<Host>();
    Events events;
};

TEST_F(FilterTest, AnyCriteriaAcceptEveryRecordAndOthersFilter) {
    auto any = make({});
    DiscoverInfo odd = record("odd");
    odd.selector = 0x12345678;
    odd.protocolId = 0;
    any->receive(odd);
    any->receive(record("plain"));
    EXPECT_EQ(serials(*any), (std::vector<std::string>{"odd", "plain"}));

    DeviceFilter strict(host, {7, 42, false}, {});
    DiscoverInfo wrongSelector = record("s");
    wrongSelector.selector = 8;
    DiscoverInfo wrongProtocol = record("p");
    wrongProtocol.protocolId = 43;
    strict.receive(wrongSelector);
    strict.receive(wrongProtocol);
    strict.receive(record("ok"));
    EXPECT_EQ(serials(strict), (std::vector<std::string>{"ok"}));
}

TEST_F(FilterTest, RepeatedRepliesAddOnceAndAvailabilityChangesAreReported) {
    auto f = make({});
    f->receive(record("A", true, 1));
    f->receive(record("A", true, 2));
    EXPECT_EQ(events.take(), (std::vector<std::string>{"added A (1)"}));
    EXPECT_EQ(f->devices().at(0).timestamp, 2);

    f->receive(record("A", false, 3));
    EXPECT_EQ(events.take(), (std::vector<std::string>{"changed A 1 off"}));
    EXPECT_FALSE(f->devices().at(0).available);
}

TEST_F(FilterTest, OnlyAvailableRemovesOnceAndNeverAddsUnavailable) {
    auto f = make({0xFFFFFFFF, 0, true});
    f->receive(record("quiet", false));
    f->receive(record("A", true));
    f->receive(record("A", false));
    f->receive(record("A", false));
    EXPECT_EQ(events.take(), (std::vector<std::string>{"added A (1)", "removed A (0)"}));
    EXPECT_TRUE(f->devices().empty());
    f->receive(record("A", true));
    EXPECT_EQ(events.take(), (std::vector<std::string>{"added A (1)"}));
}

TEST_F(FilterTest, PassesAgeOutDevicesNotHeardSinceTheRequest) {
    host->start({});  // no interfaces: the request goes nowhere, records are fed by hand
    auto f = make({});
    const std::int64_t farFuture = kmio::steadyNowNs() + 3'600'000'000'000;
    f->receive(record("old", true, kmio::steadyNowNs() - 1));
    f->receive(record("fresh", true, farFuture));
    // Same device at a new port counts as a new device.
    DiscoverInfo moved = record("fresh", true, farFuture);
    moved.port = 55551;
    f->receive(moved);
    events.take();

    f->discover(50, "");
    EXPECT_EQ(events.take(), (std::vector<std::string>{"removed old (2)"}));
    EXPECT_EQ(f->devices().size(), 2u);

    // The old port stops answering: the next pass drops it, the new one stays.
    f->receive(record("fresh", true, kmio::steadyNowNs() - 1));
    const auto start = std::chrono::steady_clock::now();
    f->discover(50, "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(events.take(), (std::vector<std::string>{"removed fresh (1)"}));
    ASSERT_EQ(f->devices().size(), 1u);
    EXPECT_EQ(f->devices()[0].port, 55551);
}

TEST_F(FilterTest, DestroyedFilterNoLongerListens) {
    host->start({ndtest::kLoopback});
    ndtest::Responder responder("gone");
    {
        auto f = make({});
        responder.sendToHost(ndtest::handDatagram(0xA2, 1, 7, "gone", {}, {1, 1, 0, 0, 0, 0}));
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (f->devices().empty() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(5ms);
        }
        ASSERT_EQ(serials(*f), (std::vector<std::string>{"gone"}));
    }
    events.take();
    responder.sendToHost(ndtest::handDatagram(0xA2, 1, 7, "gone2", {}, {1, 1, 0, 0, 0, 0}));
    host->stop();  // joins the thread: anything received was handled by now
    EXPECT_TRUE(events.take().empty());
}

TEST_F(FilterTest, LoopbackPassFindsTheResponderAndDropsItWhenSilent) {
    host->start({ndtest::kLoopback});
    ndtest::Responder responder("pass-device");
    auto f = make({});
    f->discover(300, "");
    auto found = serials(*f);
    EXPECT_NE(std::find(found.begin(), found.end(), "pass-device"), found.end());

    responder.setSilent(true);
    f->discover(300, "");
    found = serials(*f);
    EXPECT_EQ(std::find(found.begin(), found.end(), "pass-device"), found.end());
    const auto lines = events.take();
    EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                           [](const std::string& l) { return l.rfind("removed pass-device", 0) == 0; }),
              lines.end());
}

}  // namespace
}  // namespace kalometnd
