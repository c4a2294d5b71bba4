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

// The source ("QBSMTP", "qbsmtp-host") and the id ("0xC0004E95") of an
// event line, or empty.
std::string event_source(const std::string& line);
std::string event_id(const std::string& line);

// The host's own events, in the same log with the source "qbsmtp-host".
// Their ids carry the severity in the top two bits, as the module's do,
// and a range of their own (0x0001xxxx) beside the module's.
namespace host_event {
inline constexpr std::uint32_t reception_off = 0xC0010002u;     // why
inline constexpr std::uint32_t message_deferred = 0x80010003u;  // file, reason, next try
inline constexpr std::uint32_t message_failed = 0xC0010004u;    // file, reason, where kept
inline constexpr std::uint32_t queue_repaired = 0x80010005u;    // what was put right at start
}  // namespace host_event

// The source name of the host's events.
inline constexpr char host_event_source[] = "qbsmtp-host";

// Appends one host event to the log as the module's platform layer writes
// its own (one write on an O_APPEND descriptor, so lines never interleave)
// and says it on stderr as "qbsmtp-host: TEXT". False if the log could not
// be written; stderr has the text either way.
bool report_host_event(const std::filesystem::path& log, std::uint32_t id, const std::string& text);

}  // namespace qbsmtp::host
