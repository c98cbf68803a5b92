#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kmio {

// What the system knows of the USB device behind a serial port (a USB serial
// adapter or a CDC ACM device), so that a user with several adapters can tell
// them apart. Texts are empty when the device does not report them.
struct UsbAdapterIdentity {
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::string product;       // the USB product string
    std::string serialNumber;  // the USB serial number string
};

// One serial port found by a scan.
struct SerialPortEntry {
    std::string name;        // the device path, e.g. /dev/ttyUSB0
    bool available = false;  // could be opened read-write and locked at scan time
    // Set for ports that sit on a USB device, where the system says so
    // (Linux: sysfs); empty for on-board UARTs and on systems that do not tell.
    std::optional<UsbAdapterIdentity> usb;
};

// Lists the machine's serial ports. On Linux these are the entries of
// <sysfs>/class/tty that belong to real hardware, named by their device node
// under <devroot>. Both roots are constructor arguments so that tests can hand
// the scanner a fake tree.
class SerialPortScanner {
public:
    explicit SerialPortScanner(std::string sysfsRoot = "/sys", std::string devRoot = "/dev");
    SerialPortScanner(const SerialPortScanner&) = delete;
    SerialPortScanner& operator=(const SerialPortScanner&) = delete;
    virtual ~SerialPortScanner();

    // Every port, in natural name order (ttyS2 before ttyS10). Never throws for
    // a missing or unreadable tree: that is an empty list.
    virtual std::vector<SerialPortEntry> scan() const;

    const std::string& sysfsRoot() const noexcept { return sysfsRoot_; }
    const std::string& devRoot() const noexcept { return devRoot_; }

private:
    std::string sysfsRoot_;
    std::string devRoot_;
};

// Orders names with runs of digits compared by value: "ttyS2" < "ttyS10".
bool naturalLess(std::string_view a, std::string_view b);

// Sorts names in natural order, so that the port list does not depend on the
// order in which the file system happens to return directory entries.
void sortNatural(std::vector<std::string>& names);

}  // namespace kmio
