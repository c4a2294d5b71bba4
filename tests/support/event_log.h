// event_log.h: the events that the module reported in this process, as the
// platform layer's capture (os_fault.h) recorded them, the same on every
// backend; module_setup.cpp turns the capture on at the program's start.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qbsmtp::test {

struct LoggedEvent {
    std::uint32_t id = 0;
    std::vector<std::string> strings;  // insertion strings, in UTF-8
};

// The events reported so far, oldest first: all of them, or those with id.
std::vector<LoggedEvent> read_events(std::uint32_t id = 0);

inline std::vector<LoggedEvent> events_with_id(std::uint32_t id) {
    return read_events(id);
}

}  // namespace qbsmtp::test
