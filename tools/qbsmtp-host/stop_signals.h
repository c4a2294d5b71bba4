// stop_signals.h: SIGINT and SIGTERM as a polled condition.
//
// The host blocks both signals in every thread (the module's threads
// inherit the mask when they start, so block_stop_signals() must run
// before the module is loaded) and waits for them where it would sleep.
// A stop can then never interrupt a call into the module halfway.
#pragma once

namespace qbsmtp::host {

// Blocks SIGINT and SIGTERM in the calling thread and its future threads,
// and ignores SIGPIPE, so a peer that goes away mid-write costs an error
// return, not the process.
void block_stop_signals();

// Sleeps up to milliseconds; true if SIGINT or SIGTERM arrived.
bool wait_for_stop_signal(int milliseconds);

}  // namespace qbsmtp::host
