// event_log.h: the events that the platform layer wrote to
// $QBSMTP_PREFIX/events.jsonl, read back for checks.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qbsmtp::test {

struct LoggedEvent {
    std::uint32_t id = 0;
    std::vector<std::string> strings;  // insertion strings, in UTF-8
};

// The events logged so far under the current QBSMTP_PREFIX, oldest first:
// all of them, or those with id.
inline std::vector<LoggedEvent> read_events(std::uint32_t id = 0) {
    std::vector<LoggedEvent> events;
    const char* prefix = std::getenv("QBSMTP_PREFIX");
    std::ifstream in(std::string(prefix == nullptr ? "/nonexistent" : prefix) + "/events.jsonl");
    for (std::string line; std::getline(in, line);) {
        if (line.empty()) continue;
        const auto json = nlohmann::json::parse(line);
        LoggedEvent event{
            static_cast<std::uint32_t>(std::stoul(json.value("id", "0"), nullptr, 16)),
            json.value("strings", std::vector<std::string>{})};
        if (id == 0 || event.id == id) events.push_back(std::move(event));
    }
    return events;
}

inline std::vector<LoggedEvent> events_with_id(std::uint32_t id) {
    return read_events(id);
}

}  // namespace qbsmtp::test
