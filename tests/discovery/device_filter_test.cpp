#include "discovery/device_filter.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "nd_test_support.h"
#include "platform/steady_clock.h"

namespace kalometnd {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

DiscoverInfo record(const std::string& serial, bool available = true, std::int64_t timestamp = 0) {
    return {.selector = 7,
            .serialNumber = serial,
            .protocolId = 42,
            .available = available,
            .port = 55550,
            .info = "",
            .ipAddress = 0x0A000005,
            .timestamp = timestamp,
            .isReply = true};
}

Lines serials(const DeviceFilter& f) {
    Lines out;
    std::ranges::transform(f.devices(), std::back_inserter(out), &DiscoverInfo::serialNumber);
    return out;
}

class FilterTest : public ::testing::Test {
protected:
    // Every callback becomes a line: "added A (list size)", "changed A flags on|off", "removed A (list
    // size)". Reading the list from a callback would deadlock if callbacks ran under the filter's lock.
    std::unique_ptr<DeviceFilter> make(DeviceFilter::Criteria criteria) {
        DeviceFilter::Callbacks c;
        c.onAdded = [this](const DiscoverInfo& r) { events.add("added " + r.serialNumber + sizeText()); };
        c.onChanged = [this](const DiscoverInfo& r, DeviceFilter::ChangeFlags f) {
            events.add("changed " + r.serialNumber + " " + std::to_string(f.bits()) +
                       (r.available ? " on" : " off"));
        };
        c.onRemoved = [this](const DiscoverInfo& r) { events.add("removed " + r.serialNumber + sizeText()); };
        auto made = std::make_unique<DeviceFilter>(host, criteria, c);
        filter = made.get();
        return made;
    }
    std::string sizeText() const { return " (" + std::to_string(filter->devices().size()) + ")"; }

    std::shared_ptr<Host> host = std::make_shared<Host>();
    DeviceFilter* filter = nullptr;
    kmiotest::Collected<std::string> events;
};

TEST_F(FilterTest, AnyCriteriaAcceptEveryRecordAndOthersFilter) {
    auto any = make({});
    DeviceFilter strict(host, {7, 42, false}, {});
    DiscoverInfo otherSelector = record("s");
    otherSelector.selector = 0x12345678;
    DiscoverInfo otherProtocol = record("p");
    otherProtocol.protocolId = 0;
    for (const auto& r : {otherSelector, otherProtocol, record("ok")}) {
        any->receive(r);
        strict.receive(r);
    }
    EXPECT_EQ(serials(*any), (Lines{"s", "p", "ok"}));
    EXPECT_EQ(serials(strict), (Lines{"ok"}));
}

TEST_F(FilterTest, RepeatedRepliesAddOnceAndAvailabilityChangesAreReported) {
    auto f = make({});
    f->receive(record("A", true, 1));
    f->receive(record("A", true, 2));
    EXPECT_EQ(events.take(), (Lines{"added A (1)"}));
    EXPECT_EQ(f->devices().at(0).timestamp, 2);
    f->receive(record("A", false, 3));
    EXPECT_EQ(events.take(), (Lines{"changed A 1 off"}));
    EXPECT_FALSE(f->devices().at(0).available);
}

TEST_F(FilterTest, OnlyAvailableRemovesOnceAndNeverAddsUnavailable) {
    auto f = make({0xFFFFFFFF, 0, true});
    for (const auto& r :
         {record("quiet", false), record("A", true), record("A", false), record("A", false)}) {
        f->receive(r);
    }
    EXPECT_EQ(events.take(), (Lines{"added A (1)", "removed A (0)"}));
    EXPECT_TRUE(f->devices().empty());
    f->receive(record("A", true));
    EXPECT_EQ(events.take(), (Lines{"added A (1)"}));
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
    EXPECT_EQ(events.take(), (Lines{"removed old (2)"}));
    EXPECT_EQ(f->devices().size(), 2u);

    // The old port stops answering: the next pass drops it, the new one stays.
    f->receive(record("fresh", true, kmio::steadyNowNs() - 1));
    const auto start = std::chrono::steady_clock::now();
    f->discover(50, "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(events.take(), (Lines{"removed fresh (1)"}));
    ASSERT_EQ(f->devices().size(), 1u);
    EXPECT_EQ(f->devices()[0].port, 55551);
}

TEST_F(FilterTest, LoopbackPassesKeepAnsweringDevicesAndADestroyedFilterNoLongerListens) {
    host->start({kmiotest::kLoopback});
    kmiotest::Responder responder("pass-device");
    auto f = make({});
    f->discover(300, "");
    EXPECT_EQ(std::ranges::count(serials(*f), "pass-device"), 1);
    responder.setSilent(true);
    f->discover(300, "");
    EXPECT_EQ(std::ranges::count(serials(*f), "pass-device"), 0);
    EXPECT_EQ(
        std::ranges::count_if(events.take(), [](auto& l) { return l.starts_with("removed pass-device"); }),
        1);

    // A listener added after the filter hears a record after the filter would have.
    f.reset();
    const auto heard = std::make_shared<std::atomic<bool>>(false);
    host->addListener([heard](const DiscoverInfo& r) {
        *heard = *heard || r.serialNumber == "gone";
        return true;
    });
    responder.sendToHost(kmiotest::handDatagram(0xA2, 1, 7, "gone", {}, {1, 1, 0, 0, 0, 0}));
    ASSERT_TRUE(kmiotest::eventually([&] { return heard->load(); }));
    EXPECT_TRUE(std::ranges::none_of(events.take(), [](auto& l) { return l.starts_with("added gone"); }));
}

}  // namespace
}  // namespace kalometnd
