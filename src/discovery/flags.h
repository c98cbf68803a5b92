#pragma once

#include <type_traits>

namespace cppu {

// A set of bits of an enumeration whose enumerators are single-bit values,
// kept type-safe so that flags of different enumerations do not mix.
template <typename Enum>
class Flags {
public:
    using Underlying = std::underlying_type_t<Enum>;

    constexpr Flags() noexcept = default;
    constexpr Flags(Enum flag) noexcept
        : bits_(static_cast<Underlying>(flag)) {}  // NOLINT: implicit by design

    constexpr bool has(Enum flag) const noexcept {
        return (bits_ & static_cast<Underlying>(flag)) == static_cast<Underlying>(flag);
    }
    constexpr bool empty() const noexcept { return bits_ == 0; }
    constexpr Underlying bits() const noexcept { return bits_; }

    constexpr Flags& operator|=(Flags other) noexcept {
        bits_ |= other.bits_;
        return *this;
    }
    constexpr Flags operator|(Flags other) const noexcept { return Flags(bits_ | other.bits_); }
    constexpr bool operator==(const Flags&) const = default;

private:
    constexpr explicit Flags(Underlying bits) noexcept : bits_(bits) {}

    Underlying bits_ = 0;
};

}  // namespace cppu
