#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kmio {

// One IPv4 address of a local interface, as the system lists it. Addresses
// are in host order (10.0.0.5 is 0x0A000005).
struct InterfaceAddress {
    std::string name;          // the system's interface name ("eth0"; a GUID on Windows)
    std::string friendlyName;  // the system's display name (Windows); empty where there is none
    std::uint32_t address = 0;
    std::uint32_t netmask = 0;  // 0 when the system gives none
    bool up = false;            // administratively up
    bool running = false;       // has a carrier (operationally up)
    bool loopback = false;
};

// Every IPv4 address of the machine's interfaces, loopback and interfaces
// that are down included, in the order the system lists them: the one walk of
// the system's interface list that adapters, the discovery channels and the
// simulator share. Throws std::system_error when the list cannot be read.
std::vector<InterfaceAddress> listInterfaceAddresses();

}  // namespace kmio
