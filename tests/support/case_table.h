// case_table.h: tables of cases kept as text under tests/data.
//
// One case a line, fields separated by '|' and trimmed of blanks; blank
// lines and lines starting with '#' are passed over. unescape() turns
// \r, \n, \t, \\ and \xHH into their bytes (other backslashes stay as they
// are), for fields that hold control bytes or blanks at their edges.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_prefix.h"
#include "support/transcript.h"

namespace qbsmtp::test {

struct Case {
    std::string where;  // "file:line", for failure messages
    std::vector<std::string> fields;
    const std::string& operator[](std::size_t i) const { return fields.at(i); }
};

inline void PrintTo(const Case& c, std::ostream* out) {
    *out << c.where;
}

inline std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const bool known =
            i + 1 < text.size() && std::string("rnt\\x").find(text[i + 1]) != std::string::npos;
        out += text[i] == '\\' && known ? decode_byte(text, i) : text[i++];
    }
    return out;
}

// The pieces of text between separators, trimmed of blanks.
inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::istringstream in(text + separator);
    for (std::string piece; std::getline(in, piece, separator);) {
        const std::size_t first = piece.find_first_not_of(" \t\r");
        const std::size_t end = piece.find_last_not_of(" \t\r") + 1;
        pieces.push_back(first == std::string::npos ? "" : piece.substr(first, end - first));
    }
    return pieces;
}

// The file's content under tests/data (name like "frame/paths.txt").
inline std::string data_file(const std::string& name) {
    const std::string text = read_file(std::string(QBSMTP_SOURCE_DIR) + "/tests/data/" + name);
    EXPECT_FALSE(text.empty()) << "cannot read tests/data/" << name;
    return text;
}

// The cases of a table; every case must have at least min_fields fields.
inline std::vector<Case> read_cases(const std::string& name, std::size_t min_fields = 1) {
    std::vector<Case> cases;
    const std::vector<std::string> lines = split(data_file(name), '\n');
    for (std::size_t n = 0; n < lines.size(); ++n) {
        if (lines[n].empty() || lines[n][0] == '#') continue;
        Case c{name + ":" + std::to_string(n + 1), split(lines[n], '|')};
        EXPECT_GE(c.fields.size(), min_fields) << c.where;
        if (c.fields.size() >= min_fields) cases.push_back(std::move(c));
    }
    EXPECT_FALSE(cases.empty()) << "no cases in tests/data/" << name;
    return cases;
}

}  // namespace qbsmtp::test
