#include "interface/event_data.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "kmio/kmio.h"

namespace kmio {
namespace {

KM_IO_Event discoveryEvent(std::uint32_t type) {
    KM_IO_Event event;
    event.type = type;
    event.interfaceType = KM_IO_IFACE_NETWORK;
    event.properties.set("iface-type", "network");
    event.properties.set("device-sn", "KM42");
    event.properties.set("locator", "network:sn:KM42");
    event.properties.set("device-info", "a|b=c");
    return event;
}

std::string discoveryText(const KM_IO_Event& event, const char* options) {
    char buffer[256];
    std::size_t size = sizeof buffer;
    EXPECT_EQ(readDiscoveryEventData(event, options, buffer, &size), KM_IO_OK) << options;
    return std::string(buffer, size);
}

TEST(EventDataTest, AccessorsRefuseTheOtherEventTypes) {
    KM_IO_Event error;
    error.type = KM_IO_EVENT_ERROR;
    char buffer[16] = "untouched";
    std::size_t size = sizeof buffer;
    std::uint32_t code = 99;
    EXPECT_EQ(readDiscoveryEventData(error, "", buffer, &size), KM_IO_ERR_WRONG_EVENT_TYPE);
    for (std::uint32_t type : {KM_IO_EVENT_DEVICE_AVAILABLE, KM_IO_EVENT_DEVICE_UNAVAILABLE, 3u}) {
        EXPECT_EQ(readErrorEventData(discoveryEvent(type), &code, buffer, &size), KM_IO_ERR_WRONG_EVENT_TYPE);
    }
    EXPECT_EQ(readDiscoveryEventData(discoveryEvent(3), "", buffer, &size), KM_IO_ERR_WRONG_EVENT_TYPE);
    EXPECT_EQ(size, sizeof buffer);
    EXPECT_EQ(code, 99u);
    EXPECT_STREQ(buffer, "untouched");
}

TEST(EventDataTest, ErrorDataFollowsTheBufferConventionToTheByte) {
    KM_IO_Event error;
    error.type = KM_IO_EVENT_ERROR;
    error.code = 13;
    error.message = "discovery failed";
    const std::size_t n = error.message.size();

    std::string buffer(n + 1, '#');
    std::size_t size = n;
    std::uint32_t code = 99;
    EXPECT_EQ(readErrorEventData(error, &code, buffer.data(), &size), KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, n + 1);
    EXPECT_EQ(code, 99u);
    EXPECT_EQ(buffer, std::string(n + 1, '#'));

    EXPECT_EQ(readErrorEventData(error, &code, buffer.data(), &size), KM_IO_OK);
    EXPECT_EQ(size, n);
    EXPECT_EQ(code, 13u);
    EXPECT_EQ(buffer, error.message + '\0');

    const KM_IO_Event event = discoveryEvent(KM_IO_EVENT_DEVICE_AVAILABLE);
    std::string one(1, '#');
    size = 0;
    EXPECT_EQ(readDiscoveryEventData(event, "only-locator", one.data(), &size), KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, std::string("network:sn:KM42").size() + 1);
    EXPECT_EQ(one, "#");
}

TEST(EventDataTest, DiscoveryDataOptions) {
    const KM_IO_Event event = discoveryEvent(KM_IO_EVENT_DEVICE_UNAVAILABLE);
    const struct {
        const char* options;
        std::string text;
    } cases[] = {
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
    for (const auto& c : cases) {
        EXPECT_EQ(discoveryText(event, c.options), c.text) << c.options;
    }
    char buffer[64];
    std::size_t size = sizeof buffer;
    EXPECT_THROW(readDiscoveryEventData(event, "only-locator maybe", buffer, &size), std::invalid_argument);
}

}  // namespace
}  // namespace kmio
