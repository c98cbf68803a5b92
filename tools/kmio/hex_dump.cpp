#include "hex_dump.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace kmiotool {

namespace {

constexpr std::size_t kBytesPerLine = 16;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

std::string HexDump::format(const std::uint8_t* data, std::size_t length) {
    std::string out;
    for (std::size_t start = 0; start < length; start += kBytesPerLine) {
        std::size_t count = std::min(kBytesPerLine, length - start);
        char field[32];
        std::snprintf(field, sizeof field, "%08llx ", static_cast<unsigned long long>(offset_ + start));
        out += field;
        for (std::size_t i = 0; i < kBytesPerLine; ++i) {
            if (i < count) {
                std::snprintf(field, sizeof field, " %02x", data[start + i]);
                out += field;
            } else {
                out += "   ";
            }
        }
        out += "  |";
        for (std::size_t i = 0; i < count; ++i) {
            std::uint8_t byte = data[start + i];
            out += (byte >= 0x20 && byte < 0x7f) ? static_cast<char>(byte) : '.';
        }
        out += "|\n";
    }
    offset_ += length;
    return out;
}

std::vector<std::uint8_t> decodeHex(const std::string& text) {
    std::vector<std::uint8_t> bytes;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == ':' || c == ',' || c == '-') {
            if (high >= 0) {
                throw std::invalid_argument("a byte needs two hex digits");
            }
            continue;
        }
        int digit = hexDigit(c);
        if (digit < 0) {
            throw std::invalid_argument(std::string("not a hex digit: '") + c + "'");
        }
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    if (high >= 0) {
        throw std::invalid_argument("odd number of hex digits");
    }
    return bytes;
}

}  // namespace kmiotool
