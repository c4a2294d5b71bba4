// bridge.h: serve --exec and parse --exec, the host as a mail-to-fax
// bridge. Each record goes to the administrator's command (run_command.h),
// whose exit status decides the message's fate, as a mail system's
// delivery command does (sysexits): 0 done, 75 or a time-out deferred
// and tried again later, anything else failed. message_queue.h keeps the
// outcome on disk.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "message_queue.h"
#include "receive_loop.h"
#include "run_command.h"

namespace qbsmtp::host {

struct ExecSettings {
    std::string command;             // for /bin/sh -c
    long timeout_seconds = 10 * 60;  // a longer run counts as 75
    RetrySchedule schedule;
};

// The environment a command gets for its record: QBSMTP_FILE,
// QBSMTP_SENDER, QBSMTP_SUBJECT (decoded), QBSMTP_TO (the addresses joined
// by commas) and QBSMTP_ATTACHMENTS (the paths joined by commas). A field
// the record does not have is set empty.
Environment record_environment(const nlohmann::ordered_json& record);

class Bridge;

// The handler for serve and parse: the command's bridge when --exec is
// given (made, started and kept in bridge), else one JSON line on out.
RecordHandler record_handler(std::unique_ptr<Bridge>& bridge,
                             const std::optional<ExecSettings>& exec,
                             const std::filesystem::path& spool,
                             const std::filesystem::path& event_log, bool delete_taken,
                             std::ostream& out);

class Bridge {
  public:
    Bridge(const std::filesystem::path& spool, ExecSettings settings,
           const std::filesystem::path& event_log, bool delete_done);

    // At start: finishes half-done moves, loads the deferred messages.
    void start() { queue_.repair_and_load(); }
    // The handler for a record SMTPRecvNext just gave.
    RecordHandler handler();
    // Runs the command again for the deferred message due first, if one is
    // due by due_by (seconds since the epoch; 0: now); empty when none is.
    RoundResult retry_due(std::string& error, std::int64_t due_by = 0);
    // Milliseconds until a deferred message is due, at most limit.
    int wait_milliseconds(int limit) const;

  private:
    Disposal deliver(QueuedMessage message, std::string& error);

    ExecSettings settings_;
    MessageQueue queue_;
};

}  // namespace qbsmtp::host
