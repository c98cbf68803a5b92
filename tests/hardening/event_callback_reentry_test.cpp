// Calls from inside the event callback that would wait on discovery must
// come back: the callback's thread holds the table lock, which the end of a
// discovery pass needs to raise its events.

#include <cstdio>

#include "hardening/hardening_support.h"
#include "support/forked.h"

namespace kmiotest {
namespace {

struct Reentry {
    std::mutex mutex;
    std::condition_variable done;
    bool entered = false;  // the callback began its calls
    bool called = false;   // and came back from them
    std::uint32_t networkListing = 0xFFFFFFFF;
    std::uint32_t serialListing = 0xFFFFFFFF;
    std::string openFailure;
};

void ignore(void*, const std::uint8_t*, std::size_t) {}

void callback(void* user, std::uint32_t, const KM_IO_Event* event) {
    auto* reentry = static_cast<Reentry*>(user);
    char text[2048];
    std::size_t size = sizeof text;
    if (KM_IO_GetDiscoveryEventData(event, "only-locator", text, &size) != KM_IO_OK ||
        std::string(text, size) != "network:sn:HZ0001") {
        return;
    }
    {
        const std::lock_guard lock(reentry->mutex);
        if (reentry->entered) {
            return;
        }
        reentry->entered = true;
    }
    std::vector<char> buffer(1 << 16);
    size = buffer.size();
    const std::string network = kLoopbackEnumeration + "force-rescan 1\ndiscovery-timeout 200";
    const std::uint32_t networkListing =
        KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, network.c_str(), buffer.data(), &size);
    // A listing that needs no discovery still works from here.
    size = buffer.size();
    const std::uint32_t serialListing =
        KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, "iface-type serial", buffer.data(), &size);
    std::string openFailure = "returned";
    try {
        std::uint32_t handle = 0;
        const std::uint32_t rc =
            KM_IO_Open(&handle, "network:sn:HZ0001", "iface network:127.0.0.1\ndiscovery-timeout 200",
                       nullptr, &ignore, nullptr);
        openFailure += " " + std::to_string(rc);
    } catch (const std::system_error& error) {
        openFailure =
            error.code() == std::errc::resource_deadlock_would_occur ? "deadlock refused" : error.what();
    }
    const std::lock_guard lock(reentry->mutex);
    reentry->called = true;
    reentry->networkListing = networkListing;
    reentry->serialListing = serialListing;
    reentry->openFailure = openFailure;
    reentry->done.notify_all();
}

TEST(EventCallbackReentry, DiscoveryCallsFromTheCallbackReturnAtOnce) {
    const auto sim = startHardeningSimulator(56620);
    const ForkedResult result = runForked(
        [] {
            Reentry reentry;
            KM_IO_SetEventCallback(&callback, &reentry);
            if (KM_IO_SetGlobalOptions("discovery-iface network:127.0.0.1") != KM_IO_OK) {
                return 1;
            }
            std::unique_lock lock(reentry.mutex);
            if (!reentry.done.wait_for(lock, 15s, [&] { return reentry.called; })) {
                std::fprintf(stderr, reentry.entered ? "the callback never came back from its calls\n"
                                                     : "no event arrived from kmio-sim\n");
                return reentry.entered ? 2 : 4;
            }
            std::fprintf(stderr, "network listing %u, serial listing %u, open %s\n", reentry.networkListing,
                         reentry.serialListing, reentry.openFailure.c_str());
            const bool expected = reentry.networkListing == KM_IO_ERR_ENUMERATION_FAILED &&
                                  reentry.serialListing == KM_IO_OK &&
                                  reentry.openFailure == "deadlock refused";
            lock.unlock();
            KM_IO_SetEventCallback(nullptr, nullptr);
            KM_IO_SetGlobalOptions("discovery-iface network:none");
            return expected ? 0 : 3;
        },
        30s);
    EXPECT_TRUE(result.finished) << "hung inside the event callback";
    EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace kmiotest
