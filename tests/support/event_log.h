// event_log.h: the events that the platform layer wrote to
// $QBSMTP_PREFIX/events.jsonl, read back for checks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qbsmtp::test {

struct LoggedEvent {
    std::string source;
    std::uint32_t id = 0;
    int type = 0;
    std::vector<std::string> strings;  // insertion strings as reported
};

// Every event logged so far under the current QBSMTP_PREFIX, oldest first.
std::vector<LoggedEvent> read_events();
// Those with this id.
std::vector<LoggedEvent> events_with_id(std::uint32_t id);

}  // namespace qbsmtp::test
