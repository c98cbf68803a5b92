#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "kmio/kmio.h"
#include "options/option_sets.h"
#include "options/property_record.h"
#include "support/callback_sink.h"
#include "support/ftdi_sim_control.h"
#include "support/manual_clock.h"
#include "usb/d2xx_binding.h"
#include "usb/io_ftdi.h"
#include "usb/usb_device_cache.h"
#include "usb/usb_enumeration.h"

namespace kmiotest {

// EEPROM words of a chip line, and the chip id they give.
inline const std::string kWords = " ee43=0x1234 ee44=0xABCD";
inline const std::string kId = std::to_string(0xBCB85023u);

// Every test starts with an empty simulator, a binding that loads the driver
// by its own name, and a device cache of its own on a hand-moved clock.
class UsbSimTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim.reset()); }
    void TearDown() override { EXPECT_EQ(sim.openHandles(), 0u) << "a chip was left open"; }

    void addChip(const std::string& line) { ASSERT_TRUE(sim.addChip(line)) << line; }

    // The combined enumeration's USB section, rendered with every key; the
    // listing must return `expected`.
    std::string enumerate(const std::string& options, std::uint32_t expected = KM_IO_OK) {
        kmio::RecordList records;
        EXPECT_EQ(kmio::enumerateUsbDevices(kmio::EnumerationOptions::parse(options).usb, records, cache),
                  expected)
            << options;
        return kmio::renderRecords(records, {"all"});
    }

    // The older (type 1) listing's text; the listing must return `expected`.
    std::string listOlder(const std::string& options, std::uint32_t expected = KM_IO_OK) {
        char buffer[4096];
        std::size_t size = sizeof buffer;
        const std::uint32_t result = kmio::listUsbDevices(options, buffer, &size, cache);
        EXPECT_EQ(result, expected) << options;
        return result == KM_IO_OK ? std::string(buffer, size) : std::string();
    }

    // Opens `device` on the locator; the result code of open().
    std::uint32_t open(const std::string& locator, const std::string& options = "") {
        device =
            std::make_shared<kmio::IoFtdi>(locator, options, &sink, Sink::onReceive, Sink::onError, cache);
        return device->open(device);
    }

    FtdiSimControl sim;
    kmio::D2xxBinding binding{"libftd2xx.so", "libftchipid.so"};
    ManualClock clock;
    kmio::UsbDeviceCache cache{binding, clock.clock()};
    Sink sink;
    std::shared_ptr<kmio::IoFtdi> device;
};

}  // namespace kmiotest
