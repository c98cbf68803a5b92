#include <windows.h>

#include <string>
#include <vector>

#include "serial/serial_port_scanner.h"

namespace kmio {

namespace {

constexpr DWORD kNameBytes = 256;
constexpr DWORD kDataBytes = 256;

// A port is available when it can be opened for reading and writing with no
// sharing at the time of the scan; the probe handle is closed at once.
bool canOpen(const std::string& name) {
    const std::string path = "\\\\.\\" + name;
    const HANDLE handle =
        ::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    ::CloseHandle(handle);
    return true;
}

}  // namespace

// On Windows the roots play no part: the ports are the string values of the
// registry key HKLM\Hardware\Devicemap\SerialComm whose data begins with
// "COM", in the registry's order.
std::vector<SerialPortEntry> SerialPortScanner::scan() const {
    std::vector<SerialPortEntry> ports;
    HKEY key = nullptr;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Hardware\\Devicemap\\SerialComm", 0, KEY_QUERY_VALUE, &key) !=
        ERROR_SUCCESS) {
        return ports;
    }
    for (DWORD index = 0;; ++index) {
        char name[kNameBytes];
        DWORD nameLength = sizeof name;
        BYTE data[kDataBytes];
        DWORD dataLength = sizeof data;
        DWORD type = 0;
        if (::RegEnumValueA(key, index, name, &nameLength, nullptr, &type, data, &dataLength) !=
            ERROR_SUCCESS) {
            break;
        }
        if (type != REG_SZ || dataLength == 0) {
            continue;
        }
        std::string port(reinterpret_cast<const char*>(data), dataLength - 1);
        if (port.rfind("COM", 0) != 0) {
            continue;
        }
        SerialPortEntry entry;
        entry.available = canOpen(port);
        entry.name = std::move(port);
        ports.push_back(std::move(entry));
    }
    ::RegCloseKey(key);
    return ports;
}

}  // namespace kmio
