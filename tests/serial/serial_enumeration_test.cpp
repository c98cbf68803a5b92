#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "devices/serial_enumeration.h"
#include "devices/serial_port_cache.h"
#include "kmio/kmio.h"
#include "platform/unique_fd.h"

namespace kmio::test {
namespace {

namespace fs = std::filesystem;

// A fake /sys and /dev in a temporary folder, shaped like the real ones.
class FakeTree {
public:
    FakeTree() {
        std::string pattern = (fs::temp_directory_path() / "kmio-serial-XXXXXX").string();
        root_ = ::mkdtemp(pattern.data());
        fs::create_directories(root_ / "dev");
        fs::create_directories(root_ / "sys/devices/platform/serial8250");
        fs::create_directories(root_ / "sys/devices/pci0000:00/usb1/1-1");
        fs::create_directories(root_ / "sys/devices/virtual/tty/console");
        addPort("ttyS10", "devices/platform/serial8250", "4");
        addPort("ttyS2", "devices/platform/serial8250", "4");
        addPort("ttyS1", "devices/platform/serial8250", "0");  // no UART behind it
        addPort("ttyS0", "devices/platform/serial8250", "4");
        addPort("ttyUSB0", "devices/pci0000:00/usb1/1-1", nullptr);
        addPort("console", "devices/virtual/tty/console", nullptr);
        fs::create_directories(root_ / "sys/class/tty/tty5");  // no device link
        std::ofstream(root_ / "dev/tty5");
    }
    ~FakeTree() { fs::remove_all(root_); }

    void addPort(const std::string& name, const char* device, const char* type) {
        const fs::path entry = root_ / "sys/class/tty" / name;
        fs::create_directories(entry);
        fs::create_directory_symlink(fs::path("../../..") / device, entry / "device");
        if (type != nullptr) {
            std::ofstream(entry / "type") << type << "\n";
        }
        std::ofstream(root_ / "dev" / name);
    }
    std::string dev(const std::string& name) const { return (root_ / "dev" / name).string(); }
    std::string sys() const { return (root_ / "sys").string(); }
    std::string devRoot() const { return (root_ / "dev").string(); }

private:
    fs::path root_;
};

class CountingScanner : public SerialPortScanner {
public:
    using SerialPortScanner::SerialPortScanner;
    std::vector<SerialPortEntry> scan() const override {
        ++scans;
        return SerialPortScanner::scan();
    }
    mutable std::atomic<int> scans{0};
};

class SerialEnumeration : public ::testing::Test {
protected:
    void SetUp() override {
        // A port someone else holds is still a port, but not an openable device.
        holder_.reset(::open(tree_.dev("ttyS2").c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(::flock(holder_.get(), LOCK_EX | LOCK_NB), 0);
    }
    std::string list(std::string_view options) {
        std::size_t size = 4096;
        std::string text(size, '\0');
        EXPECT_EQ(listSerialLocators(cache_, options, text.data(), &size), KM_IO_OK);
        return text.substr(0, size);
    }

    FakeTree tree_;
    UniqueFd holder_;
    std::shared_ptr<CountingScanner> scanner_ =
        std::make_shared<CountingScanner>(tree_.sys(), tree_.devRoot());
    SerialPortCache cache_{scanner_};
};

TEST_F(SerialEnumeration, ListsRealPortsInNaturalOrderWithoutPhantomOrVirtualOnes) {
    const std::string all = "serial:" + tree_.dev("ttyS0") + "\nserial:" + tree_.dev("ttyS2") +
                            "\nserial:" + tree_.dev("ttyS10") + "\nserial:" + tree_.dev("ttyUSB0");
    EXPECT_EQ(list(""), all);

    RecordList devices;
    ASSERT_EQ(enumerateSerialDevices(cache_, false, devices), KM_IO_OK);
    EXPECT_EQ(renderRecords(devices, {"all"}),
              "iface-type=serial|locator=serial:" + tree_.dev("ttyS0") +
                  "\niface-type=serial|locator=serial:" + tree_.dev("ttyS10") +
                  "\niface-type=serial|locator=serial:" + tree_.dev("ttyUSB0"));

    RecordList interfaces;
    ASSERT_EQ(enumerateSerialInterfaces(*scanner_, interfaces), KM_IO_OK);
    ASSERT_EQ(interfaces.size(), 4u);
    EXPECT_EQ(renderRecords({interfaces[1]}, {"all"}),
              "iface-type=serial|name=" + tree_.dev("ttyS2") + "|serial-port=" + tree_.dev("ttyS2"));
}

TEST_F(SerialEnumeration, CacheServesThreeSecondsUnlessForced) {
    const std::string before = list("");
    tree_.addPort("ttyS3", "devices/platform/serial8250", "4");
    RecordList devices;
    ASSERT_EQ(enumerateSerialDevices(cache_, false, devices), KM_IO_OK);
    EXPECT_EQ(list("anything"), before);
    EXPECT_EQ(scanner_->scans, 1);

    EXPECT_NE(list("xforce-rescanx"), before);  // a plain substring is enough
    EXPECT_EQ(scanner_->scans, 2);
    ASSERT_EQ(enumerateSerialDevices(cache_, true, devices), KM_IO_OK);
    EXPECT_EQ(scanner_->scans, 3);
    EXPECT_NE(list("").find(tree_.dev("ttyS3")), std::string::npos);
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

TEST(SerialPortScanner, MissingTreeIsAnEmptyListAndNamesSortNaturally) {
    EXPECT_TRUE(SerialPortScanner("/nonexistent-kmio-sys", "/dev").scan().empty());
    std::vector<std::string> names{"ttyS10", "ttyUSB0", "ttyS2", "ttyACM1", "ttyS1"};
    sortNatural(names);
    EXPECT_EQ(names, (std::vector<std::string>{"ttyACM1", "ttyS1", "ttyS2", "ttyS10", "ttyUSB0"}));
}

}  // namespace
}  // namespace kmio::test
