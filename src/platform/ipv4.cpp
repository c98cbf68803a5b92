#include "platform/ipv4.h"

namespace kmio {

std::string formatIpv4(Ipv4 address) {
    return std::to_string((address >> 24) & 0xFF) + "." + std::to_string((address >> 16) & 0xFF) + "." +
           std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

}  // namespace kmio
