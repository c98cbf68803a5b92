#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace kmio {

// One option line: key and value, in the order of the option string.
using OptionPair = std::pair<std::string, std::string>;
using OptionList = std::vector<OptionPair>;

// Splits an option string into (key, value) pairs: lines at '\n', trimmed of
// " \t\r\n", key up to the first blank, value the rest as it stands. Never fails.
OptionList splitOptions(std::string_view text);

// Base-10 unsigned conversion with the semantics of std::stoul on a 32-bit
// unsigned long: leading white space and a sign accepted, stops at the first
// non-digit. Throws std::invalid_argument("invalid stoul argument") or
// std::out_of_range("stoul argument out of range").
std::uint32_t toUnsigned(const std::string& value);

// The same reading without exceptions, for callers whose answer to a bad
// number is a result code or a value: Ok with the number in result, else
// what was wrong (result unchanged).
enum class NumberReading { Ok, NotANumber, OutOfRange };
NumberReading readUnsigned(std::string_view value, std::uint32_t& result);

// "", "true", "on", "1" are true; "false", "off", "0" false; anything else
// throws std::invalid_argument("Invalid boolean literal").
bool toBoolean(std::string_view value);

// Takes a value straight out of the option text: first occurrence of key
// anywhere, then the next blank, skip blanks, value up to '\r', '\n' or the
// end. Empty when any step finds nothing.
std::string rawOptionValue(std::string_view text, std::string_view key);

// True when the word stands anywhere in the option text, even inside another
// line: how the older listings (KM_IO_EnumerateDevices for one link) read
// their flags, which take no value.
bool mentions(std::string_view text, std::string_view word);

// The keys that follow "include-" in a list, each once, in their first order,
// whatever their values say: how discovery event data chooses the keys to
// show, without an option set.
std::vector<std::string> includedKeys(const OptionList& list);

// The raw look-up read as a number, the way a network open reads its
// "connect-timeout": `fallback` when the look-up finds nothing; otherwise
// what toUnsigned reads, except that a value without digits reads as 0 and a
// value too large as the largest number, instead of failing.
std::uint32_t rawUnsignedOption(std::string_view text, std::string_view key, std::uint32_t fallback);

// Reads typed values out of one option list and remembers every key it was
// asked for, so that checkStrict() can reject the others. Each getter leaves
// the target unchanged when the key is absent and throws
// OptionsError("Conversion of <key> failed") when the value does not convert.
class OptionReader {
public:
    explicit OptionReader(std::string_view text);

    const OptionList& list() const noexcept { return list_; }

    void get(std::string_view key, std::uint32_t& target);
    void get(std::string_view key, bool& target);
    void get(std::string_view key, std::string& target);
    // Optional fields also remember whether the key was present.
    void get(std::string_view key, std::optional<std::uint32_t>& target);
    void get(std::string_view key, std::optional<std::string>& target);
    // Multi-valued: every line with the key contributes, in list order.
    // Strings are kept once each, in the order first seen.
    void getSet(std::string_view key, std::vector<std::string>& target);
    void getList(std::string_view key, std::vector<std::uint32_t>& target);

    // With "strict" true, throws OptionsError("Unknown option: <key>") for the
    // first key of the list that no getter asked for. A "strict" value that is
    // not a boolean throws std::invalid_argument("Invalid boolean literal").
    void checkStrict() const;

private:
    const std::string* first(std::string_view key);
    void remember(std::string_view key);

    OptionList list_;
    std::unordered_set<std::uint64_t> knownKeys_;
};

// 64-bit FNV-1a over the bytes of text.
std::uint64_t fnv1a64(std::string_view text);

}  // namespace kmio
