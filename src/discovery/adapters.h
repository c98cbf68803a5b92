#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/interface_addresses.h"

namespace kalometnd {

// One local IPv4 interface address. Addresses are in host order.
struct AdapterInfo {
    std::string adapterName;  // the system's interface name ("eth0")
    std::uint32_t address = 0;
    std::uint32_t netmask = 0;
    std::string friendlyName;  // the interface's alias when it has one, else its name
};

// The machine's IPv4 interfaces that are up and running, loopback excluded,
// in the order the system lists them. Throws NetworkException
// "Could not get interface list: <system message>" when the list cannot be read.
std::vector<AdapterInfo> listAdapters();

// OS hook (adapters_linux.cpp, adapters_win32.cpp): the name shown to people
// for an interface of the walk: on Linux its alias when an administrator set
// one, else its name; on Windows the adapter's friendly name.
std::string friendlyNameOf(const kmio::InterfaceAddress& entry);

}  // namespace kalometnd
