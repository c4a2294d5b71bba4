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
    int type = 0;                      // the event type: 1 error, 2 warning, 4 information
    std::vector<std::string> strings;  // insertion strings, in UTF-8
    std::string text;                  // the catalogue text filled in, in UTF-8
};

// Every event logged so far under the current QBSMTP_PREFIX, oldest first.
std::vector<LoggedEvent> read_events();
// Those with this id.
std::vector<LoggedEvent> events_with_id(std::uint32_t id);

}  // namespace qbsmtp::test
