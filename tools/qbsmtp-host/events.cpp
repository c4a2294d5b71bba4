// events.cpp: the prefix's event log as readable lines, optionally
// followed as it grows until SIGINT or SIGTERM.
#include <filesystem>
#include <iostream>

#include "commands.h"
#include "event_log.h"
#include "platform_prefix.h"
#include "stop_signals.h"

namespace qbsmtp::host {

int run_events(const EventsOptions& options) {
    const Prefix prefix = resolve_prefix();
    block_stop_signals();
    std::error_code failure;
    if (!std::filesystem::exists(prefix.events(), failure))
        std::cerr << "qbsmtp-host: no events yet in " << prefix.events().string() << '\n';
    EventLogReader reader(prefix.events(), false);
    for (;;) {
        for (const auto& line : reader.read_new_lines()) std::cout << format_event(line) << '\n';
        std::cout.flush();
        if (!options.follow || wait_for_stop_signal(options.interval_ms)) return 0;
    }
}

}  // namespace qbsmtp::host
