#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kmiotool {

// Formats received bytes as hex dump lines, "OFFSET  xx xx ...  |text|", 16
// bytes a line. The offset runs on across blocks so that a stream received in
// pieces reads as one dump; each block ends its last line, so a short reply
// shows at once instead of waiting for 16 bytes.
class HexDump {
public:
    std::string format(const std::uint8_t* data, std::size_t length);

private:
    std::uint64_t offset_ = 0;
};

// Decodes hex text such as "48 65 6c 6c 6f" or "48656c6c6f"; blanks, ':' ',' and
// '-' between bytes are ignored. Throws std::invalid_argument on anything else
// or an odd number of digits.
std::vector<std::uint8_t> decodeHex(const std::string& text);

}  // namespace kmiotool
