#include "arg_parser.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace kmiotool {

const std::vector<std::string>& ParsedArgs::all(const std::string& name) const {
    static const std::vector<std::string> none;
    auto it = options.find(name);
    return it == options.end() ? none : it->second;
}

std::string ParsedArgs::last(const std::string& name, const std::string& fallback) const {
    const auto& values = all(name);
    return values.empty() ? fallback : values.back();
}

const OptionSpec* ArgParser::findLong(const std::string& name) const {
    auto it = std::find_if(specs_.begin(), specs_.end(), [&](const OptionSpec& s) { return s.name == name; });
    return it == specs_.end() ? nullptr : &*it;
}

const OptionSpec* ArgParser::findShort(char letter) const {
    auto it = std::find_if(specs_.begin(), specs_.end(),
                           [&](const OptionSpec& s) { return s.shortName == letter; });
    return it == specs_.end() ? nullptr : &*it;
}

ParsedArgs ArgParser::parse(const std::vector<std::string>& args, std::size_t minPositional,
                            std::size_t maxPositional) const {
    ParsedArgs parsed;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            parsed.positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        const OptionSpec* option = nullptr;
        std::string inlineValue;
        bool hasInlineValue = false;
        if (arg[1] == '-') {
            std::string name = arg.substr(2);
            if (auto eq = name.find('='); eq != std::string::npos) {
                inlineValue = name.substr(eq + 1);
                hasInlineValue = true;
                name.resize(eq);
            }
            option = findLong(name);
        } else {
            option = findShort(arg[1]);
            if (arg.size() > 2) {
                inlineValue = arg.substr(2);
                hasInlineValue = true;
            }
        }
        if (option == nullptr) {
            throw UsageError("unknown option '" + arg + "'");
        }
        if (!option->takesValue) {
            if (hasInlineValue) {
                throw UsageError("option --" + option->name + " takes no value");
            }
            parsed.options[option->name].emplace_back();
            continue;
        }
        if (!hasInlineValue) {
            if (i + 1 >= args.size()) {
                throw UsageError("option --" + option->name + " needs a value");
            }
            inlineValue = args[++i];
        }
        parsed.options[option->name].push_back(inlineValue);
    }
    if (parsed.positional.size() < minPositional) {
        throw UsageError("missing argument");
    }
    if (parsed.positional.size() > maxPositional) {
        throw UsageError("unexpected argument '" + parsed.positional[maxPositional] + "'");
    }
    return parsed;
}

unsigned long parseCount(const std::string& option, const std::string& text) {
    bool digitsOnly =
        !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    errno = 0;
    unsigned long value = digitsOnly ? std::strtoul(text.c_str(), nullptr, 10) : 0;
    if (!digitsOnly || errno == ERANGE) {
        throw UsageError("option --" + option + " needs a decimal number, not '" + text + "'");
    }
    return value;
}

void requireOneOf(const std::string& option, const std::string& value,
                  const std::vector<std::string>& allowed) {
    if (std::find(allowed.begin(), allowed.end(), value) != allowed.end()) {
        return;
    }
    std::string list;
    for (const auto& word : allowed) {
        list += (list.empty() ? "" : "|") + word;
    }
    throw UsageError("option --" + option + " takes " + list + ", not '" + value + "'");
}

}  // namespace kmiotool
