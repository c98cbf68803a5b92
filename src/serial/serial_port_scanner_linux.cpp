#include <fcntl.h>
#include <linux/serial.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "serial/serial_port_scanner.h"
#include "platform/unique_fd.h"

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

// Asks the driver for its port type; 0 (PORT_UNKNOWN) means the 8250 driver
// registered a port for which no UART answered.
bool serialInfoSaysPhantom(const std::string& devicePath) {
    UniqueFd fd(::open(devicePath.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        return false;
    }
    serial_struct info{};
    return ::ioctl(fd.get(), TIOCGSERIAL, &info) == 0 && info.type == PORT_UNKNOWN;
}

// The 8250 driver creates a fixed number of ttyS ports whether or not a UART
// sits behind them; their sysfs "type" reads 0.
bool isPhantomPort(const fs::path& classEntry, const std::string& devicePath) {
    std::ifstream typeFile(classEntry / "type");
    if (!typeFile) {
        return serialInfoSaysPhantom(devicePath);
    }
    long type = -1;
    typeFile >> type;
    return typeFile && type == 0;
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
        if (isPhantomPort(classDir / name, devicePath)) {
            continue;
        }
        ports.push_back({devicePath, probeAvailable(devicePath)});
    }
    return ports;
}

}  // namespace kmio
