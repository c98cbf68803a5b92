#pragma once

#include <vector>

#include "platform/ipv4.h"

namespace kmio {

// The IPv4 addresses of the machine's interfaces, for "network:all" in the
// interface lists of enumeration, discovery settings and opens. Throws the
// discovery exceptions when the list cannot be read.
std::vector<Ipv4> localAddresses();

}  // namespace kmio
