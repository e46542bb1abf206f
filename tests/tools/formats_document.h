// docs/formats.md as the tests read it: its sections, the tables in them, and the blocks of text
// and bytes.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support.h"

namespace kvtest {

using Row = std::vector<std::string>;

inline std::string formats_document() {
    return read_file(KAVRIN_DOCS "/formats.md");
}

// What stands between the heading that holds `title` and the next heading.
inline std::vector<std::string> section(const std::string& title) {
    std::istringstream in(formats_document());
    std::vector<std::string> lines;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with('#')) {
            inside = line.find(title) != std::string::npos;
        } else if (inside) {
            lines.push_back(line);
        }
    }
    EXPECT_FALSE(lines.empty()) << "no section " << title;
    return lines;
}

inline std::string trimmed(std::string text) {
    const auto is_edge = [](char c) { return c == ' ' || c == '`'; };
    while (!text.empty() && is_edge(text.back())) text.pop_back();
    while (!text.empty() && is_edge(text.front())) text.erase(0, 1);
    return text;
}

// The rows of a section's n-th table, without its heading.
inline std::vector<Row> table(const std::string& title, int n = 0) {
    std::vector<Row> rows;
    bool inside = false;
    int found = -1;
    for (const std::string& line : section(title)) {
        if (!line.starts_with('|')) {
            inside = false;
            continue;
        }
        if (!inside) ++found;
        inside = true;
        if (found != n) continue;
        Row row;
        std::istringstream cells(line.substr(1, line.rfind('|') - 1));
        for (std::string cell; std::getline(cells, cell, '|');) row.push_back(trimmed(cell));
        rows.push_back(row);
    }
    EXPECT_GT(rows.size(), 2u) << title;
    rows.erase(rows.begin(), rows.begin() + 2);
    return rows;
}

inline std::string block(const std::string& title, const std::string& language) {
    std::string text;
    bool inside = false;
    for (const std::string& line : section(title)) {
        if (line == "```" + language)
            inside = true;
        else if (line == "```")
            inside = false;
        else if (inside)
            text += line + "\n";
    }
    EXPECT_FALSE(text.empty()) << "no " << language << " in " << title;
    return text;
}

}  // namespace kvtest
