// transcript.cpp: reading cases and matching expected texts.

#include "support/transcript.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/os_fault.h"
#include "support/event_log.h"

namespace qbsmtp::test {

namespace {

// Bytes, then maybe a placeholder ("n", "time", ...).
struct Piece {
    std::string bytes, placeholder;
};

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
            pieces.back().placeholder = inside;
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
    return std::string(text, std::strftime(text, sizeof text, format, &at));
}

// A local time as the module stamps it: "5 Jun 00 14:03:07" (the C
// runtime of Windows spells the unpadded day %#d).
#ifdef _WIN32
constexpr const char* stamp_format = "%#d %b %y %H:%M:%S";
#else
constexpr const char* stamp_format = "%-d %b %y %H:%M:%S";
#endif

// The start of bytes (gtest shows its control bytes escaped).
std::string show(std::string_view bytes) {
    return "\"" + std::string(bytes.substr(0, 60)) + (bytes.size() > 60 ? "\"..." : "\"");
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
        const std::size_t space = std::min(line.find(' '), line.size());
        if (!line.empty() && line[0] != '#')
            lines.push_back(
                {line.substr(0, space), line.substr(std::min(space + 1, line.size())), number});
    }
    return lines;
}

std::string transcript_name(const std::string& path) {
    return std::filesystem::path(path).stem().string();
}

char decode_byte(std::string_view text, std::size_t& i) {
    if (text[i] != '\\' || i + 1 >= text.size()) return text[i++];
    i += 2;
    const std::size_t known = std::string_view("rnt0x").find(text[i - 1]);
    if (known == 4) {
        i += 2;
        return static_cast<char>(std::stoi(std::string(text.substr(i - 2, 2)), nullptr, 16));
    }
    return known == std::string_view::npos ? text[i - 1] : "\r\n\t\0"[known];
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
    std::vector<Piece> pieces = parse(expected);
#ifdef _WIN32
    // Windows answers a zone without daylight saving with TIME_ZONE_ID_UNKNOWN,
    // and the module stamps that as +0000, whatever the zone's bias.
    for (std::size_t i = 1; zone_without_daylight() && i < pieces.size(); ++i)
        if (pieces[i - 1].placeholder == "time" && pieces[i].bytes.size() >= 6 &&
            pieces[i].bytes.find_first_of("+-") == 1)
            pieces[i].bytes.replace(1, 5, "+0000");
#endif
    for (const Piece& piece : pieces) {
        std::string_view rest = actual.substr(at);
        if (!rest.starts_with(piece.bytes)) {
            std::size_t same = 0;  // a byte differs before the end of piece.bytes
            while (same < rest.size() && rest[same] == piece.bytes[same]) ++same;
            return "at byte " + std::to_string(at + same) + ": expected " +
                   show(piece.bytes.substr(same)) + ", got " + show(rest.substr(same));
        }
        rest.remove_prefix(piece.bytes.size());
        at += piece.bytes.size();
        const std::string& p = piece.placeholder;
        std::string found;
        if (p == "rest") return {};
        if (p == "n") found = rest.substr(0, rest.find_first_not_of("0123456789"));
        for (std::time_t t = from - 1; p == "time" && t <= to + 1 && found.empty(); ++t)
            if (rest.starts_with(local_time(t, stamp_format)))
                found = local_time(clock = t, stamp_format);
        const std::string boundary = local_time(clock, "QBsmtp-part-%Y%m%d-%H%M%S");
        if (p == "boundary" && clock != -1 && rest.starts_with(boundary)) found = boundary;
        if (!p.empty() && found.empty())
            return "at byte " + std::to_string(at) + ": no {" + p + "} in " + show(rest);
        at += found.size();
    }
    if (at != actual.size()) return "unexpected bytes at the end: " + show(actual.substr(at));
    return {};
}

std::vector<std::string> event_lines(const std::string& path, const std::string& token) {
    std::vector<std::string> lines;
    for (const LoggedEvent& event : read_events()) {
        if (event.id == 0x400051A3) continue;  // debug texts
        char line[16];
        std::snprintf(line, sizeof line, "0x%08X", static_cast<unsigned>(event.id));
        lines.push_back(line);
        for (std::size_t i = 0; i < event.strings.size(); ++i)
            lines.back() += (i == 0 ? " " : " | ") + event.strings[i];
        for (std::size_t at;
             !path.empty() && (at = lines.back().find(path)) != std::string::npos;) {
            lines.back().replace(at, path.size(), token);
#ifdef _WIN32  // the names below it with '/', as the cases write them
            for (at += token.size(); at < lines.back().size() && lines.back()[at] != ' '; ++at)
                if (lines.back()[at] == '\\') lines.back()[at] = '/';
#endif
        }
    }
    return lines;
}

void expect_events(const std::vector<std::string>& expected, const std::vector<std::string>& got,
                   std::time_t from, std::time_t to) {
    for (std::size_t i = 0; i < std::max(got.size(), expected.size()); ++i) {
        ASSERT_LT(i, expected.size()) << "an event nobody expected: " << got[i];
        ASSERT_LT(i, got.size()) << "an event expected but absent: " << expected[i];
        EXPECT_EQ(difference(expected[i], got[i], from, to), "");
    }
}

bool set_zone(const std::string& zone) {
#ifdef _WIN32
    static const std::string started = getenv("TZ") != nullptr ? getenv("TZ") : "";
    if (zone != started) return false;
#endif
    ::setenv("TZ", zone.c_str(), 1);
    ::tzset();
    return true;
}

void arm_fault(const std::string& text) {
    // The operations of os::Op, in its order.
    static const std::string ops =
        " BeginThread LocalAlloc CreateFileA ReadFile WriteFile SetFilePointerEx GetFileSizeEx"
        " FlushFileBuffers CloseHandle CopyFileA MoveFileA DeleteFileA CreateDirectoryA"
        " GetFileAttributesA FindFirstFileA FindNextFileA RegOpenKeyExA RegCreateKeyExA"
        " RegQueryValueExA RegSetValueExA RegEnumKeyExA RegisterEventSourceA ReportEventA"
        " FormatMessageA LoadStringA LoadLibraryA WSAStartup gethostname gethostbyname"
        " getservbyname socket bind setsockopt listen accept connect recv send"
        " GetTimeZoneInformation SystemTimeToFileTime ";
    std::istringstream in(text);
    std::string op, always;
    unsigned nth = 0, error = 0;
    ASSERT_TRUE(in >> op >> nth >> error) << "not OP N ERROR [always]: " << text;
    in >> always;
    const std::size_t at = ops.find(" " + op + " ");
    ASSERT_NE(at, std::string::npos) << "no operation " << op;
    const auto index =
        std::count(ops.begin(), ops.begin() + static_cast<std::ptrdiff_t>(at) + 1, ' ') - 1;
    ASSERT_EQ(std::count(ops.begin(), ops.end(), ' ') - 1,
              static_cast<std::ptrdiff_t>(os::Op::Count));
    os::fault_arm(static_cast<os::Op>(index), nth, error, always == "always");
}

}  // namespace qbsmtp::test
