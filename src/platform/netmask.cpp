#include "platform/netmask.h"

#include <algorithm>
#include <bit>

namespace kmio {

std::uint32_t netmaskOfPrefixLength(unsigned prefixLength) noexcept {
    const unsigned shift = (32U - std::min(prefixLength, 32U)) % 32U;
    return 0xFFFFFFFFU << shift;
}

unsigned prefixLengthOfNetmask(std::uint32_t netmask) noexcept {
    return static_cast<unsigned>(std::countl_one(netmask));
}

}  // namespace kmio
