#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "kmio/kmio.h"
#include "options/option_sets.h"
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
// ports (ttyS1 without a UART behind it), a virtual console and a tty without
// a device link; a USB serial adapter and a CDC ACM device laid out as Linux
// lays them out (no "type" attribute; the USB device's ids two or one folders
// above the tty's device). Someone else holds ttyS2: still a port, but not an
// openable device.
class SerialEnumeration : public ::testing::Test {
protected:
    SerialEnumeration() {
        fs::create_directories(root_ / "dev");
        for (const auto& [name, device, type] : {std::tuple{"ttyS10", "platform/serial8250", "4"},
                                                 {"ttyS2", "platform/serial8250", "4"},
                                                 {"ttyS1", "platform/serial8250", "0"},
                                                 {"ttyS0", "platform/serial8250", "4"},
                                                 {"console", "virtual/tty/console", nullptr}})
            addPort(name, device, type);
        addUsbDevice("pci0000:00/0000:00:04.0/usb1/1-1", "0403", "6001", "USB Serial Converter", "A1B2C3");
        addPort("ttyUSB0", "pci0000:00/0000:00:04.0/usb1/1-1/1-1:1.0/ttyUSB0", nullptr);
        addUsbDevice("pci0000:00/0000:00:04.0/usb1/1-2", "2341", "0043", "Arduino Uno", "");
        addPort("ttyACM0", "pci0000:00/0000:00:04.0/usb1/1-2/1-2:1.0", nullptr);
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
    // The attributes a USB device folder really carries: ids as four hex
    // digits, texts on one line; a device without a serial number has no file.
    void addUsbDevice(const std::string& device, const char* vid, const char* pid, const char* product,
                      const char* serial) {
        const fs::path folder = root_ / "sys/devices" / device;
        fs::create_directories(folder);
        std::ofstream(folder / "idVendor") << vid << "\n";
        std::ofstream(folder / "idProduct") << pid << "\n";
        std::ofstream(folder / "product") << product << "\n";
        if (*serial != '\0')
            std::ofstream(folder / "serial") << serial << "\n";
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
    const std::string all = "serial:" + dev("ttyACM0") + "\nserial:" + dev("ttyS0") +
                            "\nserial:" + dev("ttyS2") + "\nserial:" + dev("ttyS10") +
                            "\nserial:" + dev("ttyUSB0");
    EXPECT_EQ(list(""), all);

    // Without "serial-usb-info" the records are the two keys they always were.
    RecordList devices;
    enumerateSerialDevices(cache_, SerialEnumerationOptions{}, devices);
    EXPECT_EQ(renderRecords(devices, {"all"}), "iface-type=serial|locator=serial:" + dev("ttyACM0") +
                                                   "\niface-type=serial|locator=serial:" + dev("ttyS0") +
                                                   "\niface-type=serial|locator=serial:" + dev("ttyS10") +
                                                   "\niface-type=serial|locator=serial:" + dev("ttyUSB0"));

    RecordList interfaces;
    enumerateSerialInterfaces(*scanner_, interfaces);
    ASSERT_EQ(interfaces.size(), 5u);
    EXPECT_EQ(renderRecords({interfaces[2]}, {"all"}),
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
    enumerateSerialDevices(cache_, SerialEnumerationOptions{}, devices);
    EXPECT_EQ(list("anything"), before);
    EXPECT_EQ(scanner_->scans, 1);
    EXPECT_NE(list("xforce-rescanx"), before);
    EXPECT_EQ(scanner_->scans, 2);
    SerialEnumerationOptions rescan;
    rescan.forceRescan = true;
    enumerateSerialDevices(cache_, rescan, devices);
    EXPECT_EQ(scanner_->scans, 3);

    addPort("ttyS4", "platform/serial8250", "4");
    clock_.advance(std::chrono::milliseconds(3001));
    EXPECT_NE(list("").find(dev("ttyS4")), std::string::npos);
    EXPECT_EQ(scanner_->scans, 4);
}

// "serial-usb-info" through the same option text the combined enumeration
// reads: USB ids in decimal as the USB record has them, and the USB filters
// keep only ports whose adapter matches (on-board UARTs match no filter).
TEST_F(SerialEnumeration, UsbAdapterIdentityAndFiltersOnlyWhenAsked) {
    const std::string usb0 = "iface-type=serial|locator=serial:" + dev("ttyUSB0") +
                             "|usb-vid=1027|usb-pid=24577|usb-desc=USB Serial Converter|device-sn=A1B2C3";
    const std::string acm0 = "iface-type=serial|locator=serial:" + dev("ttyACM0") +
                             "|usb-vid=9025|usb-pid=67|usb-desc=Arduino Uno|device-sn=";
    const std::string uarts = "iface-type=serial|locator=serial:" + dev("ttyS0") +
                              "\niface-type=serial|locator=serial:" + dev("ttyS10");
    const struct {
        const char* options;
        std::string expected;
    } cases[] = {
        {"serial-usb-info 1", acm0 + "\n" + uarts + "\n" + usb0},
        {"serial-usb-info 1\nfind-usb-vid 1027", usb0},
        {"serial-usb-info 1\nfind-usb-vid 1027\nfind-usb-vid 9025", acm0 + "\n" + usb0},
        {"serial-usb-info 1\nfind-usb-pid 67", acm0},
        {"serial-usb-info 1\nfind-usb-product-name Arduino Uno", acm0},
        {"serial-usb-info 1\nfind-device-sn A1B2C3", usb0},
        {"serial-usb-info 1\nfind-device-sn a1b2c3", ""},
        {"find-usb-vid 1027", "iface-type=serial|locator=serial:" + dev("ttyACM0") + "\n" + uarts +
                                  "\niface-type=serial|locator=serial:" + dev("ttyUSB0")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        RecordList devices;
        enumerateSerialDevices(cache_, EnumerationOptions::parse(c.options).serial, devices);
        EXPECT_EQ(renderRecords(devices, {"all"}), c.expected);
    }
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
