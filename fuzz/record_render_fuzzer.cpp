// Records with any values: the rendered text keeps its structure. Every line
// splits at '|' into exactly the items rendered, every item at its single
// '=' into key and value, and unescaping a value gives the value back; so a
// rendered value never holds an unescaped separator.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "options/property_record.h"

namespace {

using namespace kmio;

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    for (std::size_t begin = 0;;) {
        const std::size_t end = text.find(separator, begin);
        parts.emplace_back(text.substr(begin, end == std::string_view::npos ? end : end - begin));
        if (end == std::string_view::npos) {
            return parts;
        }
        begin = end + 1;
    }
}

// The inverse of escapeValue, strict: any '%' must start one of its four escapes.
std::string unescape(std::string_view text) {
    std::string value;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            value += text[i];
            continue;
        }
        const std::string_view code = text.substr(i + 1, 2);
        FUZZ_CHECK(code == "25" || code == "0A" || code == "7C" || code == "3D");
        value += code == "25" ? '%' : code == "0A" ? '\n' : code == "7C" ? '|' : '=';
        i += 2;
    }
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::vector<std::string>& keys = record_keys::networkDevice();
    RecordList records(input.ConsumeIntegralInRange<std::size_t>(0, 4));
    for (PropertyRecord& record : records) {
        for (std::size_t n = input.ConsumeIntegralInRange<std::size_t>(0, 6); n > 0; --n) {
            // Keys from the fixed list, "all" (index 0) left out.
            const std::string& key = keys[input.ConsumeIntegralInRange<std::size_t>(1, keys.size() - 1)];
            record.set(key, input.ConsumeRandomLengthString(64));
        }
    }
    std::vector<std::string> include;
    if (input.ConsumeBool()) {
        include.push_back("all");
    } else {
        for (std::size_t n = input.ConsumeIntegralInRange<std::size_t>(0, 4); n > 0; --n) {
            include.push_back(keys[input.ConsumeIntegralInRange<std::size_t>(1, keys.size() - 1)]);
        }
    }
    const bool all = include.size() == 1 && include[0] == "all";

    // The lines expected: one per record that yields an item.
    std::vector<std::vector<std::pair<std::string, std::string>>> expected;
    for (const PropertyRecord& record : records) {
        std::vector<std::pair<std::string, std::string>> items;
        if (all) {
            items = record.items();
        } else {
            for (const std::string& key : include) {
                if (const std::string* value = record.find(key)) {
                    items.emplace_back(key, *value);
                }
            }
        }
        if (!items.empty()) {
            expected.push_back(std::move(items));
        }
    }

    const std::string text = renderRecords(records, include);
    if (expected.empty()) {
        FUZZ_CHECK(text.empty());
        return 0;
    }
    const std::vector<std::string> lines = split(text, '\n');
    FUZZ_CHECK(lines.size() == expected.size());
    for (std::size_t l = 0; l < lines.size(); ++l) {
        const std::vector<std::string> items = split(lines[l], '|');
        FUZZ_CHECK(items.size() == expected[l].size());
        for (std::size_t i = 0; i < items.size(); ++i) {
            const std::vector<std::string> halves = split(items[i], '=');
            FUZZ_CHECK(halves.size() == 2);
            FUZZ_CHECK(halves[0] == expected[l][i].first);
            FUZZ_CHECK(unescape(halves[1]) == expected[l][i].second);
        }
    }
    // The bare form carries values unescaped, one per record that holds the key.
    const std::string key = keys[1 + size % (keys.size() - 1)];
    std::vector<std::string> values;
    for (const PropertyRecord& record : records) {
        if (const std::string* value = record.find(key)) {
            values.push_back(*value);
        }
    }
    FUZZ_CHECK(renderKey(records, key) == joinTexts(values, "\n"));
    return 0;
}
