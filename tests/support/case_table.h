// case_table.h: tables of cases kept as text under tests/data.
//
// One case a line, fields separated by '|' and trimmed of blanks; blank
// lines and lines starting with '#' are passed over. unescape() turns
// \r, \n, \t, \\ and \xHH into their bytes (other backslashes stay as they
// are), for fields that hold control bytes or blanks at their edges.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

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
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        if (text[i] != '\\' || std::string("rnt\\x").find(next) == std::string::npos) {
            out += text[i];
        } else if (next == 'x' && i + 3 < text.size()) {
            out += static_cast<char>(std::strtoul(text.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            out += next == 'r' ? '\r' : next == 'n' ? '\n' : next == 't' ? '\t' : next;
            ++i;
        }
    }
    return out;
}

// The pieces of text between separators, trimmed of blanks.
inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces(1);
    for (char c : text + separator) {
        if (c != separator) {
            pieces.back() += c;
            continue;
        }
        const std::size_t begin = pieces.back().find_first_not_of(" \t\r");
        const std::size_t end = pieces.back().find_last_not_of(" \t\r");
        pieces.back() =
            begin == std::string::npos ? "" : pieces.back().substr(begin, end - begin + 1);
        pieces.emplace_back();
    }
    pieces.pop_back();
    return pieces;
}

// The file's content under tests/data (name like "frame/paths.txt").
inline std::string data_file(const std::string& name) {
    std::ifstream in(std::string(QBSMTP_SOURCE_DIR) + "/tests/data/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << "cannot read tests/data/" << name;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The cases of a table; every case must have at least min_fields fields.
inline std::vector<Case> read_cases(const std::string& name, std::size_t min_fields = 1) {
    std::vector<Case> cases;
    std::ifstream in(std::string(QBSMTP_SOURCE_DIR) + "/tests/data/" + name);
    EXPECT_TRUE(in.good()) << "cannot read tests/data/" << name;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#') continue;
        Case c{name + ":" + std::to_string(number), split(line, '|')};
        EXPECT_GE(c.fields.size(), min_fields) << c.where;
        if (c.fields.size() >= min_fields) cases.push_back(std::move(c));
    }
    EXPECT_FALSE(cases.empty()) << "no cases in tests/data/" << name;
    return cases;
}

}  // namespace qbsmtp::test
