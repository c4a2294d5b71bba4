// run_command.h: one run of the administrator's command for a record.
//
// The command runs through /bin/sh -c in a process group of its own, with
// the record's JSON on standard input (from an unlinked temporary file, so
// a command that never reads it can't block the host), the record's main
// fields in the environment, and the host's standard output and error.
// Stop signals are unblocked and SIGPIPE is back to its default in the
// command, which the host's own mask would otherwise leave blocked.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "stop_signals.h"

namespace qbsmtp::host {

using Environment = std::vector<std::pair<std::string, std::string>>;

struct CommandRun {
    bool started = false;
    std::string error;  // why it did not start
    ChildEnd end;
};

// Runs command with input on its standard input and extra set in its
// environment (over the host's own), for at most timeout_seconds.
CommandRun run_command(const std::string& command, const std::string& input,
                       const Environment& extra, long timeout_seconds);

}  // namespace qbsmtp::host
