// event_log.cpp: reading back $QBSMTP_PREFIX/events.jsonl.

#include "support/event_log.h"

#include <cstdlib>
#include <fstream>

#include <nlohmann/json.hpp>

namespace qbsmtp::test {

std::vector<LoggedEvent> read_events() {
    std::vector<LoggedEvent> events;
    const char* prefix = std::getenv("QBSMTP_PREFIX");
    if (prefix == nullptr) return events;
    std::ifstream in(std::string(prefix) + "/events.jsonl");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty()) continue;
        const auto json = nlohmann::json::parse(line);
        LoggedEvent event;
        event.source = json.value("source", "");
        event.id = static_cast<std::uint32_t>(std::stoul(json.value("id", "0"), nullptr, 16));
        const std::string type = json.value("type", "");
        event.type = type == "error" ? 1 : type == "warning" ? 2 : type == "information" ? 4 : 0;
        event.text = json.value("text", "");
        for (const auto& text : json.value("strings", nlohmann::json::array())) {
            event.strings.push_back(text.get<std::string>());
        }
        events.push_back(std::move(event));
    }
    return events;
}

std::vector<LoggedEvent> events_with_id(std::uint32_t id) {
    std::vector<LoggedEvent> matching;
    for (auto& event : read_events()) {
        if (event.id == id) matching.push_back(std::move(event));
    }
    return matching;
}

}  // namespace qbsmtp::test
