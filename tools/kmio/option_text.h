#pragma once

#include <string>
#include <vector>

namespace kmiotool {

// Builds the library's option strings from command-line pieces: one line per
// option, joined with '\n'.
class OptionText {
public:
    void add(const std::string& line) { lines_.push_back(line); }
    void add(const std::string& key, const std::string& value) { lines_.push_back(key + " " + value); }
    void addAll(const std::vector<std::string>& lines);
    // One "KEY network:ADDR" line per --iface value; ADDR may already carry
    // the "network:" prefix.
    void addInterfaces(const std::string& key, const std::vector<std::string>& addresses);
    // True when one of the lines selects output keys ("include-..." or
    // "only-..."), in which case the tool leaves the choice to the user.
    bool selectsKeys() const;
    // The KEY of the last "only-KEY" line, empty when there is none.
    std::string onlyKey() const;

    std::string text() const;

private:
    // The key of every line, in order.
    std::vector<std::string> keys() const;

    std::vector<std::string> lines_;
};

// "network:ADDR" for a bare address, the text itself when it has the prefix.
std::string networkInterfaceLocator(const std::string& address);

}  // namespace kmiotool
