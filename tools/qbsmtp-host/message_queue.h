// message_queue.h: where a message goes after its command ran, on disk so
// that a restart loses nothing.
//
//   <spool>/done/NAME              the command took it (or deleted: --delete)
//   <spool>/deferred/NAME          it waits for its next try ...
//   <spool>/deferred/NAME.json     ... with its record, tries and next time
//   <spool>/failed/NAME            the command refused it, or its tries ran out,
//   <spool>/failed/NAME.json       with its record and the reason,
//   <spool>/failed/NAME.files/     and the files of its text and attachments
//
// NAME is the spool file's name, with .1, .2, ... when the name is taken
// (the module reuses spool names once they are free). A deferred message
// leaves the spool directory, so SMTPRecvNext, which always takes the
// first waiting file, moves on to the others.
//
// Every move writes its sidecar (NAME.json, renamed into place whole)
// before it renames the spool file, and the spool file's arrival commits
// it. A stop between the two leaves a sidecar whose file is still at its
// source; repair_and_load() finishes such a move at the next start when
// the source is still the same file (same inode), and drops the sidecar
// otherwise.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace qbsmtp::host {

struct RetrySchedule {
    long first_seconds = 60;           // delay after the first deferral
    long cap_seconds = 3600;           // the delay doubles up to this
    long max_seconds = 5 * 24 * 3600;  // deferred longer than this: failed

    // The delay after the nth deferral (n >= 1).
    long delay_after(int deferrals) const;
};

// A message in the host's hands.
struct QueuedMessage {
    std::filesystem::path file;       // the spool file where it is now
    nlohmann::ordered_json record;    // "file" names file
    std::filesystem::path sidecar;    // deferred/NAME.json; empty for a fresh message
    int tries = 0;                    // runs of the command, the last one included
    std::int64_t first_deferred = 0;  // seconds since the epoch; 0: never deferred
};

class MessageQueue {
  public:
    MessageQueue(const std::filesystem::path& spool, RetrySchedule schedule,
                 std::filesystem::path event_log, bool delete_done);

    // Finishes the moves a stop cut in half and loads the deferred
    // messages; each repair is reported as a host event.
    void repair_and_load();

    // The deferred message due first, if its time (next_try) is now or past.
    std::optional<QueuedMessage> take_due(std::int64_t now);
    // Seconds until the next deferred message is due (0 if one is); nothing
    // if none waits.
    std::optional<std::int64_t> seconds_until_due(std::int64_t now) const;
    std::size_t deferred_count() const { return due_.size(); }

    // The dispositions. Each is false, with error set, when the spool file
    // is still where it was. defer() fails the message instead once it has
    // been deferred for the schedule's max_seconds.
    bool mark_done(const QueuedMessage& message, std::string& error);
    bool defer(QueuedMessage& message, const std::string& reason, std::int64_t now,
               std::string& error);
    bool fail(const QueuedMessage& message, const std::string& reason, std::string& error);

  private:
    std::filesystem::path done_, deferred_, failed_, log_;
    RetrySchedule schedule_;
    bool delete_done_;
    std::map<std::filesystem::path, std::int64_t> due_;  // sidecar -> next try
};

}  // namespace qbsmtp::host
