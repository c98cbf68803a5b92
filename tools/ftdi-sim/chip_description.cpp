#include "chip_description.h"

#include <cctype>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <utility>

namespace ftdisim {
namespace {

constexpr std::size_t kMaxSerial = 15;
constexpr std::size_t kMaxDescription = 63;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Splits a line into key=value fields. A value may be double-quoted to hold
// blanks; inside quotes a backslash keeps the next character (so \" does not
// end the value) and both reach the value as written.
std::optional<std::vector<std::pair<std::string, std::string>>> splitFields(std::string_view line,
                                                                            std::string& error) {
    std::vector<std::pair<std::string, std::string>> fields;
    std::size_t i = 0;
    for (;;) {
        while (i < line.size() && isBlank(line[i])) {
            ++i;
        }
        if (i == line.size() || line[i] == '#') {
            return fields;
        }
        const std::size_t keyStart = i;
        while (i < line.size() && line[i] != '=' && !isBlank(line[i])) {
            ++i;
        }
        std::string key(line.substr(keyStart, i - keyStart));
        if (i == line.size() || line[i] != '=') {
            error = "field without '=': " + key;
            return std::nullopt;
        }
        ++i;
        std::string value;
        if (i < line.size() && line[i] == '"') {
            ++i;
            while (i < line.size() && line[i] != '"') {
                if (line[i] == '\\' && i + 1 < line.size()) {
                    value += line[i++];
                }
                value += line[i++];
            }
            if (i == line.size()) {
                error = "unterminated quote in " + key;
                return std::nullopt;
            }
            ++i;
            if (i < line.size() && !isBlank(line[i])) {
                error = "text after the closing quote of " + key;
                return std::nullopt;
            }
        } else {
            while (i < line.size() && !isBlank(line[i])) {
                value += line[i++];
            }
        }
        fields.emplace_back(std::move(key), std::move(value));
    }
}

// A decimal or 0x-hex number no greater than `max`.
std::optional<std::uint64_t> parseNumber(std::string_view text, std::uint64_t max) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > 20) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (char c : text) {
        int digit = -1;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c))) {
            digit = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        }
        if (digit < 0 ||
            value > (max - static_cast<std::uint64_t>(digit)) / static_cast<std::uint64_t>(base)) {
            return std::nullopt;
        }
        value = value * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
    }
    return value;
}

int hexDigit(char c) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) {
        return -1;
    }
    return c <= '9' ? c - '0' : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
}

// Bytes of a text with C escapes: \n \r \t \a \b \f \v \\ \" \' \xH[H] and
// octal \O[O[O]].
std::optional<std::vector<std::uint8_t>> unescape(std::string_view text) {
    static const std::map<char, std::uint8_t> simple = {{'n', '\n'}, {'r', '\r'},  {'t', '\t'}, {'a', '\a'},
                                                        {'b', '\b'}, {'f', '\f'},  {'v', '\v'}, {'\\', '\\'},
                                                        {'"', '"'},  {'\'', '\''}, {'?', '?'}};
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            bytes.push_back(static_cast<std::uint8_t>(text[i]));
            continue;
        }
        if (++i == text.size()) {
            return std::nullopt;
        }
        const char c = text[i];
        if (const auto it = simple.find(c); it != simple.end()) {
            bytes.push_back(it->second);
        } else if (c == 'x') {
            unsigned value = 0;
            int digits = 0;
            while (digits < 2 && i + 1 < text.size() && hexDigit(text[i + 1]) >= 0) {
                value = value * 16 + static_cast<unsigned>(hexDigit(text[++i]));
                ++digits;
            }
            if (digits == 0) {
                return std::nullopt;
            }
            bytes.push_back(static_cast<std::uint8_t>(value));
        } else if (c >= '0' && c <= '7') {
            unsigned value = static_cast<unsigned>(c - '0');
            for (int digits = 1;
                 digits < 3 && i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '7'; ++digits) {
                value = value * 8 + static_cast<unsigned>(text[++i] - '0');
            }
            if (value > 0xFF) {
                return std::nullopt;
            }
            bytes.push_back(static_cast<std::uint8_t>(value));
        } else {
            return std::nullopt;
        }
    }
    return bytes;
}

std::optional<std::vector<std::uint16_t>> parseIdList(std::string_view text) {
    std::vector<std::uint16_t> ids;
    while (!text.empty()) {
        const std::size_t comma = text.find(',');
        const auto id = parseNumber(text.substr(0, comma), 0xFFFF);
        if (!id) {
            return std::nullopt;
        }
        ids.push_back(static_cast<std::uint16_t>(*id));
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
        if (text.empty()) {
            return std::nullopt;
        }
    }
    return ids;
}

template <typename T>
std::function<bool(ChipDescription&, const std::string&)> number(T ChipDescription::*member,
                                                                 std::uint64_t max) {
    return [member, max](ChipDescription& chip, const std::string& text) {
        const auto value = parseNumber(text, max);
        if (value) {
            chip.*member = static_cast<T>(*value);
        }
        return value.has_value();
    };
}

template <typename T>
std::function<bool(ChipDescription&, const std::string&)> optionalNumber(
    std::optional<T> ChipDescription::*member) {
    return [member](ChipDescription& chip, const std::string& text) {
        const auto value = parseNumber(text, std::numeric_limits<T>::max());
        if (value) {
            chip.*member = static_cast<T>(*value);
        }
        return value.has_value();
    };
}

std::function<bool(ChipDescription&, const std::string&)> flag(bool ChipDescription::*member) {
    return [member](ChipDescription& chip, const std::string& text) {
        if (text != "0" && text != "1") {
            return false;
        }
        chip.*member = text == "1";
        return true;
    };
}

std::function<bool(ChipDescription&, const std::string&)> text(std::string ChipDescription::*member,
                                                               std::size_t maxLength) {
    return [member, maxLength](ChipDescription& chip, const std::string& value) {
        chip.*member = value;
        return value.size() <= maxLength;
    };
}

using FieldSetter = std::function<bool(ChipDescription&, const std::string&)>;

const std::map<std::string, FieldSetter>& fieldSetters() {
    static const std::map<std::string, FieldSetter> setters = {
        {"serial", text(&ChipDescription::serial, kMaxSerial)},
        {"description", text(&ChipDescription::description, kMaxDescription)},
        {"type", number(&ChipDescription::type, 0xFFFFFFFF)},
        {"highspeed", flag(&ChipDescription::highSpeed)},
        {"vid", number(&ChipDescription::vid, 0xFFFF)},
        {"pid", number(&ChipDescription::pid, 0xFFFF)},
        {"location", optionalNumber(&ChipDescription::location)},
        {"ee43", optionalNumber(&ChipDescription::ee43)},
        {"ee44", optionalNumber(&ChipDescription::ee44)},
        {"chipid", optionalNumber(&ChipDescription::chipId)},
        {"reply240", optionalNumber(&ChipDescription::reply240)},
        {"echo", flag(&ChipDescription::echo)},
        {"ua",
         [](ChipDescription& chip, const std::string& value) {
             auto bytes = unescape(value);
             if (bytes) {
                 chip.userArea = std::move(*bytes);
             }
             return bytes.has_value();
         }},
        {"protocols",
         [](ChipDescription& chip, const std::string& value) {
             auto ids = parseIdList(value);
             if (ids) {
                 chip.protocols = std::move(*ids);
             }
             return ids.has_value();
         }},
        {"probe",
         [](ChipDescription& chip, const std::string& value) {
             static const std::map<std::string, ProbeMode> modes = {{"answer", ProbeMode::answer},
                                                                    {"garbage", ProbeMode::garbage},
                                                                    {"silent", ProbeMode::silent},
                                                                    {"bad128", ProbeMode::bad128}};
             const auto mode = modes.find(value);
             if (mode != modes.end()) {
                 chip.probe = mode->second;
             }
             return mode != modes.end();
         }},
    };
    return setters;
}

}  // namespace

std::optional<ChipDescription> ChipDescription::parse(std::string_view line, std::string& error) {
    const auto fields = splitFields(line, error);
    if (!fields) {
        return std::nullopt;
    }
    ChipDescription chip;
    std::set<std::string> seen;
    for (const auto& [key, value] : *fields) {
        const auto setter = fieldSetters().find(key);
        if (setter == fieldSetters().end()) {
            error = "unknown field: " + key;
            return std::nullopt;
        }
        if (!seen.insert(key).second) {
            error = "field given twice: " + key;
            return std::nullopt;
        }
        if (!setter->second(chip, value)) {
            error = "bad value for " + key + ": " + value;
            return std::nullopt;
        }
    }
    if (!seen.contains("serial")) {
        error = "no serial field";
        return std::nullopt;
    }
    return chip;
}

bool isBlankOrComment(std::string_view line) {
    const auto first = line.find_first_not_of(" \t\r\n");
    return first == std::string_view::npos || line[first] == '#';
}

}  // namespace ftdisim
