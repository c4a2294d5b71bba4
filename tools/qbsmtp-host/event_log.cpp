// event_log.cpp: following and formatting events.jsonl.
#include "event_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

namespace qbsmtp::host {

namespace {

using nlohmann::json;

// The string member of an event object, or fallback.
std::string member(const json& event, const char* name, const char* fallback) {
    const auto found = event.find(name);
    return found != event.end() && found->is_string() ? found->get<std::string>() : fallback;
}

// Parses a line as an event object; a discarded value if it is not one.
json parse_event(const std::string& line) {
    json event = json::parse(line, nullptr, false);
    if (!event.is_object()) return json(json::value_t::discarded);
    return event;
}

}  // namespace

EventLogReader::EventLogReader(std::filesystem::path path, bool from_end) : path_(std::move(path)) {
    struct stat status {};
    if (from_end && ::stat(path_.c_str(), &status) == 0) {
        offset_ = static_cast<std::uintmax_t>(status.st_size);
        inode_ = status.st_ino;
    }
}

std::vector<std::string> EventLogReader::read_new_lines() {
    std::vector<std::string> lines;
    struct stat status {};
    if (::stat(path_.c_str(), &status) != 0) return lines;
    const auto size = static_cast<std::uintmax_t>(status.st_size);
    if ((inode_ != 0 && status.st_ino != inode_) || size < offset_) {
        // Rotated: the module renamed the log away and began a new one.
        offset_ = 0;
        partial_.clear();
    }
    inode_ = status.st_ino;
    if (size == offset_) return lines;
    std::ifstream input(path_, std::ios::binary);
    input.seekg(static_cast<std::streamoff>(offset_));
    std::string chunk(size - offset_, '\0');
    input.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    chunk.resize(static_cast<std::size_t>(input.gcount()));
    offset_ += chunk.size();
    partial_ += chunk;
    std::size_t start = 0;
    for (std::size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(partial_.substr(start, end - start));
    partial_.erase(0, start);
    return lines;
}

std::string format_event(const std::string& line) {
    const json event = parse_event(line);
    if (event.is_discarded()) return "(not an event) " + line;
    std::string text = member(event, "text", "");
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return member(event, "time", "?") + "  " + member(event, "type", "?") + "  " +
           member(event, "id", "?") + "  " + text;
}

std::string event_type(const std::string& line) {
    const json event = parse_event(line);
    return event.is_discarded() ? std::string() : member(event, "type", "");
}

std::string event_source(const std::string& line) {
    const json event = parse_event(line);
    return event.is_discarded() ? std::string() : member(event, "source", "");
}

std::string event_id(const std::string& line) {
    const json event = parse_event(line);
    return event.is_discarded() ? std::string() : member(event, "id", "");
}

bool report_host_event(const std::filesystem::path& log, std::uint32_t id,
                       const std::string& text) {
    std::cerr << host_event_source << ": " << text << std::endl;
    static constexpr const char* types[] = {"information", "information", "warning", "error"};
    using namespace std::chrono;
    const auto now = time_point_cast<milliseconds>(system_clock::now());
    const auto day = floor<days>(now);
    const year_month_day date{day};
    const hh_mm_ss clock{now - day};
    char stamp[40], id_text[16];
    std::snprintf(
        stamp, sizeof stamp, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
        static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
    std::snprintf(id_text, sizeof id_text, "0x%08X", static_cast<unsigned>(id));
    nlohmann::ordered_json event;
    event["time"] = stamp;
    event["source"] = host_event_source;
    event["id"] = id_text;
    event["type"] = types[id >> 30];
    event["strings"] = json::array({text});
    event["text"] = text;
    const std::string line = event.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    ::close(fd);
    return written;
}

}  // namespace qbsmtp::host
