#include "option_text.h"

namespace kmiotool {

namespace {

// The key of an option line: the first word, after leading blanks.
std::string keyOf(const std::string& line) {
    auto begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos) {
        return {};
    }
    auto end = line.find_first_of(" \t\r", begin);
    return line.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

}  // namespace

void OptionText::addAll(const std::vector<std::string>& lines) {
    lines_.insert(lines_.end(), lines.begin(), lines.end());
}

void OptionText::addInterfaces(const std::string& key, const std::vector<std::string>& addresses) {
    for (const auto& address : addresses) {
        add(key, networkInterfaceLocator(address));
    }
}

std::vector<std::string> OptionText::keys() const {
    std::vector<std::string> out;
    for (const auto& line : lines_) {
        // A user line may itself hold several lines.
        std::size_t start = 0;
        while (true) {
            auto end = line.find('\n', start);
            out.push_back(
                keyOf(line.substr(start, end == std::string::npos ? std::string::npos : end - start)));
            if (end == std::string::npos) {
                break;
            }
            start = end + 1;
        }
    }
    return out;
}

bool OptionText::selectsKeys() const {
    for (const auto& key : keys()) {
        if (key.starts_with("include-") || key.starts_with("only-")) {
            return true;
        }
    }
    return false;
}

std::string OptionText::onlyKey() const {
    std::string found;
    for (const auto& key : keys()) {
        if (key.starts_with("only-")) {
            found = key.substr(5);
        }
    }
    return found;
}

std::string OptionText::text() const {
    std::string out;
    for (const auto& line : lines_) {
        if (!out.empty()) {
            out += '\n';
        }
        out += line;
    }
    return out;
}

std::string networkInterfaceLocator(const std::string& address) {
    static const std::string prefix = "network:";
    return address.starts_with(prefix) ? address : prefix + address;
}

}  // namespace kmiotool
