// event_log.h: reading the module's event log, events.jsonl.
//
// Each line is one JSON object: time, source, id, type, strings, text.
// The reader follows the file as it grows, keeps a line that is still
// being written until its newline arrives, and starts over on a file that
// was rotated (replaced or shortened).
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qbsmtp::host {

class EventLogReader {
  public:
    // from_end: skip what the file holds now and read only what follows.
    EventLogReader(std::filesystem::path path, bool from_end);

    // The complete lines added since the last call.
    std::vector<std::string> read_new_lines();

  private:
    std::filesystem::path path_;
    std::uintmax_t offset_ = 0;  // bytes of the current file already taken
    std::uintmax_t inode_ = 0;   // identity of the current file, 0 if none seen
    std::string partial_;        // a line without its newline yet
};

// One event line as readable text: "time  type  id  text". The text loses
// its closing CR LF; a line that is not an event object comes back as it
// is, marked, so nothing in the log is hidden.
std::string format_event(const std::string& line);

// The type of an event line ("error", "warning", "information"), or empty
// for a line that is not an event object.
std::string event_type(const std::string& line);

}  // namespace qbsmtp::host
