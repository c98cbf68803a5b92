#include "serial/serial_port_scanner.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace kmio {

SerialPortScanner::SerialPortScanner(std::string sysfsRoot, std::string devRoot)
    : sysfsRoot_(std::move(sysfsRoot)), devRoot_(std::move(devRoot)) {}

SerialPortScanner::~SerialPortScanner() = default;

namespace {

bool isDigit(char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

// Compares two digit runs by value without converting them, so that runs of
// any length work; leading zeros do not count, and a tie on value is broken
// by the shorter run first to keep the order strict ("1" before "01").
int compareNumbers(std::string_view a, std::string_view b) {
    const auto trim = [](std::string_view s) {
        const auto first = s.find_first_not_of('0');
        return first == std::string_view::npos ? std::string_view{} : s.substr(first);
    };
    const std::string_view ta = trim(a);
    const std::string_view tb = trim(b);
    if (ta.size() != tb.size()) {
        return ta.size() < tb.size() ? -1 : 1;
    }
    if (const int c = ta.compare(tb); c != 0) {
        return c;
    }
    if (a.size() != b.size()) {
        return a.size() < b.size() ? -1 : 1;
    }
    return 0;
}

}  // namespace

bool naturalLess(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t ei = i;
            std::size_t ej = j;
            while (ei < a.size() && isDigit(a[ei])) {
                ++ei;
            }
            while (ej < b.size() && isDigit(b[ej])) {
                ++ej;
            }
            if (const int c = compareNumbers(a.substr(i, ei - i), b.substr(j, ej - j)); c != 0) {
                return c < 0;
            }
            i = ei;
            j = ej;
            continue;
        }
        if (a[i] != b[j]) {
            return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
        }
        ++i;
        ++j;
    }
    return a.size() - i < b.size() - j;
}

void sortNatural(std::vector<std::string>& names) {
    std::sort(names.begin(), names.end(),
              [](const std::string& a, const std::string& b) { return naturalLess(a, b); });
}

}  // namespace kmio
