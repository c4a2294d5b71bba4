// transcript.cpp: reading cases and matching expected texts.

#include "support/transcript.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/event_log.h"

namespace qbsmtp::test {

namespace {

constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// One piece of a text: bytes, or a placeholder ("n", "time", ...).
struct Piece {
    std::string bytes;
    std::string placeholder;
};

// Decodes one byte at text[i] (an escape or a plain byte), advancing i.
char decode_byte(std::string_view text, std::size_t& i) {
    if (text[i] != '\\' || i + 1 >= text.size()) return text[i++];
    const char c = text[i + 1];
    i += 2;
    switch (c) {
        case 'r':
            return '\r';
        case 'n':
            return '\n';
        case 't':
            return '\t';
        case '0':
            return '\0';
        case 'x':
            i += 2;
            return static_cast<char>(std::stoi(std::string(text.substr(i - 2, 2)), nullptr, 16));
        default:
            return c;
    }
}

std::vector<Piece> parse(std::string_view text) {
    std::vector<Piece> pieces(1);
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] != '{') {
            pieces.back().bytes += decode_byte(text, i);
            continue;
        }
        const std::size_t close = text.find('}', i);
        if (close == std::string_view::npos)
            throw std::runtime_error("unclosed { in " + std::string(text));
        const std::string_view inside = text.substr(i + 1, close - i - 1);
        std::size_t at = 0;
        const char byte = decode_byte(inside, at);
        if (at < inside.size() && inside[at] == '*') {
            pieces.back().bytes.append(std::stoul(std::string(inside.substr(at + 1))), byte);
        } else {
            pieces.push_back({"", std::string(inside)});
            pieces.emplace_back();
        }
        i = close + 1;
    }
    return pieces;
}

std::string local_time(std::time_t t, const char* format) {
    std::tm at{};
    localtime_r(&t, &at);
    char text[64];
    if (format == nullptr) {
        std::snprintf(text, sizeof text, "%d %s %02d %02d:%02d:%02d", at.tm_mday, months[at.tm_mon],
                      at.tm_year % 100, at.tm_hour, at.tm_min, at.tm_sec);
    } else {
        std::snprintf(text, sizeof text, format, at.tm_year + 1900, at.tm_mon + 1, at.tm_mday,
                      at.tm_hour, at.tm_min, at.tm_sec);
    }
    return text;
}

std::string show(std::string_view bytes) {
    std::string shown;
    for (const char c : bytes.substr(0, 60)) {
        if (c == '\r')
            shown += "\\r";
        else if (c == '\n')
            shown += "\\n";
        else if (static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) > 126) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned char>(c));
            shown += hex;
        } else
            shown += c;
    }
    return "\"" + shown + (bytes.size() > 60 ? "\"..." : "\"");
}

}  // namespace

std::vector<std::string> transcript_files(const std::string& directory) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.path().extension() == ".txt") files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<TranscriptLine> read_transcript(const std::string& path) {
    std::vector<TranscriptLine> lines;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t space = line.find(' ');
        lines.push_back({line.substr(0, space),
                         space == std::string::npos ? "" : line.substr(space + 1), number});
    }
    return lines;
}

std::string transcript_name(const std::string& path) {
    return std::filesystem::path(path).stem().string();
}

std::string decode(std::string_view text) {
    std::string bytes;
    for (const Piece& piece : parse(text)) {
        if (!piece.placeholder.empty())
            throw std::runtime_error("placeholder in " + std::string(text));
        bytes += piece.bytes;
    }
    return bytes;
}

std::string difference(std::string_view expected, std::string_view actual, std::time_t from,
                       std::time_t to) {
    std::size_t at = 0;
    std::time_t clock = -1;  // the reading that the last {time} showed
    for (const Piece& piece : parse(expected)) {
        if (actual.substr(at, piece.bytes.size()) != piece.bytes) {
            std::size_t same = 0;
            while (at + same < actual.size() && same < piece.bytes.size() &&
                   actual[at + same] == piece.bytes[same])
                ++same;
            return "at byte " + std::to_string(at + same) + ": expected " +
                   show(std::string_view(piece.bytes).substr(same)) + ", got " +
                   show(actual.substr(at + same));
        }
        at += piece.bytes.size();
        const std::string& p = piece.placeholder;
        std::string found;
        if (p == "rest") {
            return {};
        } else if (p == "n") {
            while (at + found.size() < actual.size() &&
                   std::isdigit(static_cast<unsigned char>(actual[at + found.size()])))
                found += actual[at + found.size()];
        } else if (p == "time") {
            for (std::time_t t = from - 1; t <= to + 1 && found.empty(); ++t)
                if (actual.substr(at).starts_with(local_time(t, nullptr))) {
                    found = local_time(t, nullptr);
                    clock = t;
                }
        } else if (p == "boundary" && clock != -1) {
            const std::string boundary = local_time(clock, "QBsmtp-part-%04d%02d%02d-%02d%02d%02d");
            if (actual.substr(at).starts_with(boundary)) found = boundary;
        } else if (!p.empty()) {
            return "unknown placeholder {" + p + "}";
        }
        if (!p.empty() && found.empty())
            return "at byte " + std::to_string(at) + ": no {" + p + "} in " +
                   show(actual.substr(at));
        at += found.size();
    }
    if (at != actual.size()) return "unexpected bytes at the end: " + show(actual.substr(at));
    return {};
}

std::vector<std::string> event_lines() {
    std::vector<std::string> lines;
    for (const LoggedEvent& event : read_events()) {
        if (event.id == 0x400051A3) continue;  // debug texts
        char id[16];
        std::snprintf(id, sizeof id, "0x%08X", static_cast<unsigned>(event.id));
        std::string line = id;
        for (std::size_t i = 0; i < event.strings.size(); ++i)
            line += (i == 0 ? " " : " | ") + event.strings[i];
        lines.push_back(line);
    }
    return lines;
}

}  // namespace qbsmtp::test
