// event_log.cpp: following and formatting events.jsonl.
#include "event_log.h"

#include <sys/stat.h>

#include <fstream>
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

}  // namespace qbsmtp::host
