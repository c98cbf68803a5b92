#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace kmiotool {

// A mistake in the command line; the tool answers it with exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One option a command accepts: "--name" (and "-s" when a short letter is
// given), either a flag or followed by a value. Every option may repeat.
struct OptionSpec {
    std::string name;
    char shortName = 0;
    bool takesValue = false;
};

// What a command line said: options by long name (flags hold empty values),
// and the positional arguments in order.
struct ParsedArgs {
    std::map<std::string, std::vector<std::string>> options;
    std::vector<std::string> positional;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    // Every value given for an option, in order; empty when it was not given.
    const std::vector<std::string>& all(const std::string& name) const;
    // The last value given for an option, or the fallback.
    std::string last(const std::string& name, const std::string& fallback) const;
};

// Splits a command's arguments by its option list. Accepts "--name value",
// "--name=value", "-s value" and "-svalue"; "--" ends the options, so that
// positional arguments may begin with '-'.
class ArgParser {
public:
    explicit ArgParser(std::vector<OptionSpec> specs) : specs_(std::move(specs)) {}

    // Throws UsageError for an unknown option or a missing value, and when the
    // number of positional arguments is outside [minPositional, maxPositional].
    ParsedArgs parse(const std::vector<std::string>& args, std::size_t minPositional,
                     std::size_t maxPositional) const;

private:
    const OptionSpec* findLong(const std::string& name) const;
    const OptionSpec* findShort(char letter) const;

    std::vector<OptionSpec> specs_;
};

// Parses a decimal number for an option such as --wait; UsageError otherwise.
unsigned long parseCount(const std::string& option, const std::string& text);

// Checks that value is one of the allowed words; UsageError otherwise.
void requireOneOf(const std::string& option, const std::string& value,
                  const std::vector<std::string>& allowed);

}  // namespace kmiotool
