#pragma once

#include <cstdint>

namespace kmio {

// The netmask of an address's prefix length, in host order, by the adapter
// list's rule: all ones shifted left by (32 - prefix length) taken modulo 32.
// A prefix length of 0 therefore gives 255.255.255.255, not 0.0.0.0; the
// interface list keeps that quirk. Lengths above 32 count as 32.
std::uint32_t netmaskOfPrefixLength(unsigned prefixLength) noexcept;

// The length of the run of one bits at the top of a mask: the prefix length
// of a contiguous netmask.
unsigned prefixLengthOfNetmask(std::uint32_t netmask) noexcept;

}  // namespace kmio
