#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "kmio/kmio.h"
#include "platform/unique_fd.h"
#include "serial/serial_enumeration.h"
#include "serial/serial_port_cache.h"
#include "support/manual_clock.h"

namespace kmio {
namespace {

namespace fs = std::filesystem;

class CountingScanner : public SerialPortScanner {
public:
    using SerialPortScanner::SerialPortScanner;
    std::vector<SerialPortEntry> scan() const override {
        ++scans;
        return SerialPortScanner::scan();
    }
    mutable std::atomic<int> scans{0};
};

// A fake /sys and /dev in a temporary folder, shaped like the real ones: UART
// ports (ttyS1 without a UART behind it), a USB one, a virtual console and a
// tty without a device link. Someone else holds ttyS2: still a port, but not
// an openable device.
class SerialEnumeration : public ::testing::Test {
protected:
    SerialEnumeration() {
        fs::create_directories(root_ / "dev");
        for (const auto& [name, device, type] : {std::tuple{"ttyS10", "platform/serial8250", "4"},
                                                 {"ttyS2", "platform/serial8250", "4"},
                                                 {"ttyS1", "platform/serial8250", "0"},
                                                 {"ttyS0", "platform/serial8250", "4"},
                                                 {"ttyUSB0", "pci0000:00/usb1/1-1", nullptr},
                                                 {"console", "virtual/tty/console", nullptr}})
            addPort(name, device, type);
        fs::create_directories(root_ / "sys/class/tty/tty5");
        std::ofstream(root_ / "dev/tty5");
        holder_.reset(::open(dev("ttyS2").c_str(), O_RDWR | O_CLOEXEC));
    }
    ~SerialEnumeration() override { fs::remove_all(root_); }
    void SetUp() override { ASSERT_EQ(::flock(holder_.get(), LOCK_EX | LOCK_NB), 0); }

    void addPort(const std::string& name, const std::string& device, const char* type) {
        const fs::path entry = root_ / "sys/class/tty" / name;
        fs::create_directories(entry);
        fs::create_directories(root_ / "sys/devices" / device);
        fs::create_directory_symlink(fs::path("../../../devices") / device, entry / "device");
        if (type != nullptr)
            std::ofstream(entry / "type") << type << "\n";
        std::ofstream(root_ / "dev" / name);
    }
    std::string dev(const std::string& name) const { return (root_ / "dev" / name).string(); }
    std::string list(std::string_view options) {
        std::size_t size = 4096;
        std::string text(size, '\0');
        EXPECT_EQ(listSerialLocators(cache_, options, text.data(), &size), KM_IO_OK);
        return text.substr(0, size);
    }

    fs::path root_ = [] {
        std::string pattern = (fs::temp_directory_path() / "kmio-serial-XXXXXX").string();
        return fs::path(::mkdtemp(pattern.data()));
    }();
    UniqueFd holder_;
    std::shared_ptr<CountingScanner> scanner_ =
        std::make_shared<CountingScanner>((root_ / "sys").string(), (root_ / "dev").string());
    kmiotest::ManualClock clock_;
    SerialPortCache cache_{scanner_, clock_.clock()};
};

TEST_F(SerialEnumeration, ListsRealPortsInNaturalOrderWithoutPhantomOrVirtualOnes) {
    const std::string all = "serial:" + dev("ttyS0") + "\nserial:" + dev("ttyS2") +
                            "\nserial:" + dev("ttyS10") + "\nserial:" + dev("ttyUSB0");
    EXPECT_EQ(list(""), all);

    RecordList devices;
    ASSERT_EQ(enumerateSerialDevices(cache_, false, devices), KM_IO_OK);
    EXPECT_EQ(renderRecords(devices, {"all"}), "iface-type=serial|locator=serial:" + dev("ttyS0") +
                                                   "\niface-type=serial|locator=serial:" + dev("ttyS10") +
                                                   "\niface-type=serial|locator=serial:" + dev("ttyUSB0"));

    RecordList interfaces;
    ASSERT_EQ(enumerateSerialInterfaces(*scanner_, interfaces), KM_IO_OK);
    ASSERT_EQ(interfaces.size(), 4u);
    EXPECT_EQ(renderRecords({interfaces[1]}, {"all"}),
              "iface-type=serial|name=" + dev("ttyS2") + "|serial-port=" + dev("ttyS2"));
    EXPECT_TRUE(SerialPortScanner("/nonexistent-kmio-sys", "/dev").scan().empty());
}

// Both listings share the cache; force-rescan (a plain substring is enough)
// scans while the list is fresh.
TEST_F(SerialEnumeration, CacheServesItsListForThreeSecondsUnlessRescanIsForced) {
    const std::string before = list("");
    addPort("ttyS3", "platform/serial8250", "4");
    clock_.advance(std::chrono::milliseconds(2999));
    RecordList devices;
    ASSERT_EQ(enumerateSerialDevices(cache_, false, devices), KM_IO_OK);
    EXPECT_EQ(list("anything"), before);
    EXPECT_EQ(scanner_->scans, 1);
    EXPECT_NE(list("xforce-rescanx"), before);
    EXPECT_EQ(scanner_->scans, 2);
    ASSERT_EQ(enumerateSerialDevices(cache_, true, devices), KM_IO_OK);
    EXPECT_EQ(scanner_->scans, 3);

    addPort("ttyS4", "platform/serial8250", "4");
    clock_.advance(std::chrono::milliseconds(3001));
    EXPECT_NE(list("").find(dev("ttyS4")), std::string::npos);
    EXPECT_EQ(scanner_->scans, 4);
}

TEST_F(SerialEnumeration, LocatorListFollowsTheBufferConvention) {
    const std::string text = list("");
    std::string buffer(text.size(), '#');
    std::size_t size = text.size();
    EXPECT_EQ(listSerialLocators(cache_, "", buffer.data(), &size), KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, text.size() + 1);
    EXPECT_EQ(buffer, std::string(text.size(), '#'));
    buffer.resize(size);
    EXPECT_EQ(listSerialLocators(cache_, "", buffer.data(), &size), KM_IO_OK);
    EXPECT_EQ(size, text.size());
    EXPECT_STREQ(buffer.c_str(), text.c_str());
}

}  // namespace
}  // namespace kmio
