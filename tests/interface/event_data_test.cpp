#include "interface/event_data.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "kmio/kmio.h"

namespace kmio {
namespace {

KM_IO_Event makeEvent(std::uint32_t type) {
    KM_IO_Event event;
    event.type = type;
    event.code = 13;
    event.message = "discovery failed";
    for (const auto& [key, value] : {std::pair{"iface-type", "network"},
                                     {"device-sn", "KM42"},
                                     {"locator", "network:sn:KM42"},
                                     {"device-info", "a|b=c"}})
        event.properties.set(key, value);
    return event;
}

TEST(EventDataTest, ErrorDataFollowsTheBufferConventionToTheByte) {
    const KM_IO_Event error = makeEvent(KM_IO_EVENT_ERROR);
    const std::size_t n = error.message.size();
    std::string buffer(n + 1, '#');
    std::size_t size = n;
    std::uint32_t code = 99;
    // Each accessor refuses the other event types and touches nothing.
    for (std::uint32_t type : {1u, 2u, 3u})
        EXPECT_EQ(readErrorEventData(makeEvent(type), &code, buffer.data(), &size),
                  KM_IO_ERR_WRONG_EVENT_TYPE);
    for (std::uint32_t type : {0u, 3u})
        EXPECT_EQ(readDiscoveryEventData(makeEvent(type), "", buffer.data(), &size),
                  KM_IO_ERR_WRONG_EVENT_TYPE);
    EXPECT_EQ(size, n);

    EXPECT_EQ(readErrorEventData(error, &code, buffer.data(), &size), KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, n + 1);
    EXPECT_EQ(code, 99u);
    EXPECT_EQ(buffer, std::string(n + 1, '#'));

    EXPECT_EQ(readErrorEventData(error, &code, buffer.data(), &size), KM_IO_OK);
    EXPECT_EQ(size, n);
    EXPECT_EQ(code, 13u);
    EXPECT_EQ(buffer, error.message + '\0');
}

TEST(EventDataTest, DiscoveryDataTakesOnlyLocatorAndIncludeKeysAndIgnoresTheRest) {
    const KM_IO_Event event = makeEvent(KM_IO_EVENT_DEVICE_UNAVAILABLE);
    const std::pair<const char*, std::string> cases[] = {
        {"", ""},
        {"only-locator", "network:sn:KM42"},
        {"only-locator on\ninclude-all", "network:sn:KM42"},
        {"only-locator off\ninclude-locator", "locator=network:sn:KM42"},
        {"include-all", "iface-type=network|device-sn=KM42|locator=network:sn:KM42|device-info=a%7Cb%3Dc"},
        {"include-device-sn 0", "device-sn=KM42"},  // the value is not looked at
        {"include-usb-id", ""},
        {"include-locator\ninclude-device-sn\nstrict\nbogus 5\ninclude-locator",
         "locator=network:sn:KM42|device-sn=KM42"},
        {"Include-locator\ninclude-", ""},
    };
    char buffer[128];
    std::size_t size = 0;
    for (const auto& [options, text] : cases) {
        size = sizeof buffer;
        EXPECT_EQ(readDiscoveryEventData(event, options, buffer, &size), KM_IO_OK) << options;
        EXPECT_EQ(std::string(buffer, size), text) << options;
    }
    EXPECT_THROW(readDiscoveryEventData(event, "only-locator maybe", buffer, &size), std::invalid_argument);
    size = 0;
    EXPECT_EQ(readDiscoveryEventData(event, "only-locator", nullptr, &size), KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 16u);
}

}  // namespace
}  // namespace kmio
