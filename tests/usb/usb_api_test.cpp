// The USB link through the exported functions, with the simulated driver
// found by the library on the loader's search path.
#include <gtest/gtest.h>

#include <string>

#include "kmio/kmio.h"
#include "support/callback_sink.h"
#include "support/ftdi_sim_control.h"

namespace kmiotest {
namespace {

TEST(UsbApiTest, ListOpenExchangeAndClose) {
    FtdiSimControl sim;
    ASSERT_TRUE(sim.reset());
    ASSERT_TRUE(sim.addChip("serial=KM1 description=\"Kalomet DRV2\" protocols=146 ee43=0x1234 ee44=0xABCD"));

    char text[512];
    size_t size = sizeof text;
    ASSERT_EQ(
        KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, "iface-type usb\nonly-locator\nforce-rescan", text, &size),
        KM_IO_OK);
    EXPECT_EQ(std::string(text), "usb:sn:KM1");
    size = sizeof text;
    ASSERT_EQ(KM_IO_EnumerateDevices(KM_IO_IFACE_USB, "include-sn\ninclude-id", text, &size), KM_IO_OK);
    EXPECT_EQ(std::string(text), "usb:id:" + std::to_string(0xBCB85023u) + ":sn:KM1");

    Sink sink;
    uint32_t handle = 99;
    ASSERT_EQ(
        KM_IO_Open(&handle, "usb:id:3166195747", "health-check 100", &sink, Sink::onReceive, Sink::onError),
        KM_IO_OK);
    EXPECT_EQ(KM_IO_Send(handle, "hello", 5), KM_IO_OK);
    EXPECT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= 5; }));
    size = sizeof text;
    EXPECT_EQ(KM_IO_GetProperty(handle, "ftdi-id", text, &size), KM_IO_OK);
    EXPECT_EQ(std::string(text), "3166195747");
    EXPECT_EQ(KM_IO_Close(handle, 1), KM_IO_OK);
    EXPECT_EQ(sim.openHandles(), 0u);
    std::lock_guard lock(sink.mutex);
    EXPECT_EQ(std::string(sink.bytes.begin(), sink.bytes.end()), "hello");
}

}  // namespace
}  // namespace kmiotest
