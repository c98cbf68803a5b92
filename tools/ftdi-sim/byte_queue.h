#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace ftdisim {

// A first-in first-out run of bytes, taken from the front in blocks.
class ByteQueue {
public:
    std::size_t size() const { return bytes_.size() - head_; }

    void append(const std::uint8_t* data, std::size_t length) {
        if (head_ > 0 && head_ >= bytes_.size() / 2) {
            bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(head_));
            head_ = 0;
        }
        bytes_.insert(bytes_.end(), data, data + length);
    }

    // Moves up to `capacity` bytes from the front to `out`; returns the count.
    std::size_t take(std::uint8_t* out, std::size_t capacity) {
        const std::size_t n = std::min(capacity, size());
        if (n > 0) {
            std::memcpy(out, bytes_.data() + head_, n);
        }
        head_ += n;
        if (head_ == bytes_.size()) {
            clear();
        }
        return n;
    }

    void clear() {
        bytes_.clear();
        head_ = 0;
    }

private:
    std::vector<std::uint8_t> bytes_;
    std::size_t head_ = 0;
};

}  // namespace ftdisim
