#include "record_table.h"

#include <algorithm>

namespace kmiotool {

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        auto end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) {
            return parts;
        }
        start = end + 1;
    }
}

// A value shown in one table cell: line breaks and tabs would wreck the
// layout, so they are shown as escapes.
std::string cellText(const std::string& value) {
    std::string out;
    for (char c : value) {
        switch (c) {
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    return out;
}

}  // namespace

std::string unescapeValue(const std::string& value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '%' && i + 2 < value.size()) {
            std::string code = value.substr(i + 1, 2);
            char decoded = code == "25"   ? '%'
                           : code == "0A" ? '\n'
                           : code == "7C" ? '|'
                           : code == "3D" ? '='
                                          : 0;
            if (decoded != 0) {
                out += decoded;
                i += 2;
                continue;
            }
        }
        out += value[i];
    }
    return out;
}

RecordTable::RecordTable(const std::string& recordText, const std::string& bareColumn) {
    if (recordText.empty()) {
        return;
    }
    for (const auto& line : split(recordText, '\n')) {
        if (line.empty()) {
            continue;
        }
        std::map<std::string, std::string> row;
        for (const auto& item : split(line, '|')) {
            auto eq = item.find('=');
            std::string key = eq == std::string::npos ? bareColumn : item.substr(0, eq);
            std::string raw = eq == std::string::npos ? item : item.substr(eq + 1);
            if (std::find(columns_.begin(), columns_.end(), key) == columns_.end()) {
                columns_.push_back(key);
            }
            row[key] = unescapeValue(raw);
        }
        rows_.push_back(std::move(row));
    }
}

std::string RecordTable::value(std::size_t row, const std::string& key) const {
    auto it = rows_.at(row).find(key);
    return it == rows_.at(row).end() ? std::string() : it->second;
}

std::string RecordTable::render() const {
    std::vector<std::vector<std::string>> cells;
    cells.push_back(columns_);
    for (std::size_t r = 0; r < rows_.size(); ++r) {
        std::vector<std::string> line;
        for (const auto& key : columns_) {
            line.push_back(cellText(value(r, key)));
        }
        cells.push_back(std::move(line));
    }
    std::vector<std::size_t> widths(columns_.size(), 0);
    for (const auto& line : cells) {
        for (std::size_t c = 0; c < line.size(); ++c) {
            widths[c] = std::max(widths[c], line[c].size());
        }
    }
    std::string out;
    for (const auto& line : cells) {
        std::string text;
        for (std::size_t c = 0; c < line.size(); ++c) {
            text += line[c];
            if (c + 1 < line.size()) {
                text.append(widths[c] - line[c].size() + 2, ' ');
            }
        }
        out += text.substr(0, text.find_last_not_of(' ') + 1);
        out += '\n';
    }
    return out;
}

}  // namespace kmiotool
