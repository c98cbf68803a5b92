#include <fcntl.h>
#include <sys/file.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "platform/unique_fd.h"
#include "serial/serial_port_scanner.h"

namespace kmio {

namespace {

namespace fs = std::filesystem;

// True when a component of the path, below the sysfs root, is "virtual":
// consoles, ptys and the like live under /sys/devices/virtual.
bool isVirtualDevice(const fs::path& deviceLink, const fs::path& sysfsRoot) {
    std::error_code ec;
    const fs::path target = fs::canonical(deviceLink, ec);
    if (ec) {
        return true;  // a dangling link names no hardware
    }
    const fs::path root = fs::canonical(sysfsRoot, ec);
    const fs::path relative = ec ? target : target.lexically_relative(root);
    for (const auto& part : relative) {
        if (part == "virtual") {
            return true;
        }
    }
    return false;
}

// The 8250 driver creates a fixed number of ttyS ports whether or not a UART
// sits behind them; their sysfs "type" reads 0 (no UART answered). Only ports
// of the serial core have that attribute: USB serial adapters and CDC ACM
// devices have none, and asking their driver with TIOCGSERIAL is no help
// either, since USB serial drivers report type 0 for ports that work. So the
// attribute alone decides, and a port without it is real.
bool isPhantomPort(const fs::path& classEntry) {
    std::ifstream typeFile(classEntry / "type");
    if (!typeFile) {
        return false;
    }
    long type = -1;
    typeFile >> type;
    return typeFile && type == 0;
}

std::string readAttribute(const fs::path& file) {
    std::ifstream in(file);
    std::string value;
    std::getline(in, value);
    return value;
}

std::optional<std::uint16_t> readHexAttribute(const fs::path& file) {
    const std::string text = readAttribute(file);
    std::uint16_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (text.empty() || error != std::errc{}) {
        return std::nullopt;
    }
    return value;
}

// The tty's device is an interface of a USB device (ttyUSB: .../1-1/1-1:1.0/
// ttyUSB0; ttyACM: .../1-1/1-1:1.0): the USB device itself is the nearest
// folder above it, inside the sysfs tree, that carries "idVendor".
std::optional<UsbAdapterIdentity> findUsbAdapter(const fs::path& deviceLink, const fs::path& sysfsRoot) {
    std::error_code ec;
    fs::path folder = fs::canonical(deviceLink, ec);
    if (ec) {
        return std::nullopt;
    }
    const fs::path root = fs::canonical(sysfsRoot, ec);
    if (ec) {
        return std::nullopt;
    }
    for (; folder.has_relative_path() && folder != root; folder = folder.parent_path()) {
        const auto vendor = readHexAttribute(folder / "idVendor");
        const auto product = readHexAttribute(folder / "idProduct");
        if (vendor && product) {
            return UsbAdapterIdentity{*vendor, *product, readAttribute(folder / "product"),
                                      readAttribute(folder / "serial")};
        }
    }
    return std::nullopt;
}

// A port counts as available when we could use it right now: it opens for
// reading and writing and no one else holds its lock. Both are released at
// once when the descriptor closes.
bool probeAvailable(const std::string& devicePath) {
    UniqueFd fd(::open(devicePath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    return fd && ::flock(fd.get(), LOCK_EX | LOCK_NB) == 0;
}

}  // namespace

std::vector<SerialPortEntry> SerialPortScanner::scan() const {
    const fs::path classDir = fs::path(sysfsRoot_) / "class" / "tty";
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(classDir, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path deviceLink = it->path() / "device";
        std::error_code linkError;
        if (!fs::is_symlink(fs::symlink_status(deviceLink, linkError)) ||
            isVirtualDevice(deviceLink, sysfsRoot_)) {
            continue;
        }
        names.push_back(it->path().filename().string());
    }
    sortNatural(names);

    std::vector<SerialPortEntry> ports;
    for (const auto& name : names) {
        const std::string devicePath = (fs::path(devRoot_) / name).string();
        if (isPhantomPort(classDir / name)) {
            continue;
        }
        ports.push_back(
            {devicePath, probeAvailable(devicePath), findUsbAdapter(classDir / name / "device", sysfsRoot_)});
    }
    return ports;
}

}  // namespace kmio
