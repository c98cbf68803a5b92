#pragma once

#include <map>
#include <string>
#include <vector>

namespace kmiotool {

// Record text from the library ("key=value|key=value" lines) laid out as a
// table for people: one column per key, in the order the keys first appear,
// values unescaped.
class RecordTable {
public:
    // Lines without '=' (the "only-" forms) are bare values, shown in one
    // column named `bareColumn`.
    explicit RecordTable(const std::string& recordText, const std::string& bareColumn = "value");

    bool empty() const { return rows_.empty(); }
    const std::vector<std::string>& columns() const { return columns_; }
    // The unescaped value of a key in row `row`, empty when the row lacks it.
    std::string value(std::size_t row, const std::string& key) const;

    // Header line, then one line per record; columns two blanks apart.
    std::string render() const;

private:
    std::vector<std::string> columns_;
    std::vector<std::map<std::string, std::string>> rows_;
};

// Undoes the library's value escapes: %25 '%', %0A line feed, %7C '|',
// %3D '='. Anything else stays as it stands.
std::string unescapeValue(const std::string& value);

}  // namespace kmiotool
