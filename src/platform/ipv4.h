#pragma once

#include <cstdint>
#include <string>

namespace kmio {

// IPv4 addresses are held as 32-bit numbers in host order: 10.0.0.5 is 0x0A000005.
using Ipv4 = std::uint32_t;

// Dotted-decimal text of an address: "10.0.0.5".
std::string formatIpv4(Ipv4 address);

}  // namespace kmio
