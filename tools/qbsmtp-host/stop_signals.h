// stop_signals.h: SIGINT and SIGTERM as a polled condition.
//
// The host blocks both signals in every thread (the module's threads
// inherit the mask when they start, so block_stop_signals() must run
// before the module is loaded) and waits for them where it would sleep.
// A stop can then never interrupt a call into the module halfway.
#pragma once

namespace qbsmtp::host {

// Blocks SIGINT, SIGTERM and SIGCHLD in the calling thread and its future
// threads, and ignores SIGPIPE, so a peer that goes away mid-write costs an
// error return, not the process. SIGCHLD is blocked so that it stays
// pending for wait_for_child instead of landing in a module thread.
void block_stop_signals();

// Sleeps up to milliseconds; true if SIGINT or SIGTERM arrived, now or
// during an earlier wait_for_child.
bool wait_for_stop_signal(int milliseconds);

// How a child process ended for wait_for_child.
struct ChildEnd {
    enum Kind { exited, timed_out, stopped } kind = exited;
    int status = 0;  // exit status; 128 + the signal for a child killed by one
};

// Waits for the child pid (the leader of its own process group) up to
// timeout_seconds. At the time-out, or when SIGINT or SIGTERM arrives (the
// stop is remembered for wait_for_stop_signal), the group gets SIGTERM and,
// two seconds later, SIGKILL; the child is always reaped.
ChildEnd wait_for_child(int pid, long timeout_seconds);

}  // namespace qbsmtp::host
