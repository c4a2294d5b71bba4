// stop_signals.cpp: blocked stop signals, taken with sigtimedwait, and the
// bounded wait for a command's process.
#include "stop_signals.h"

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <ctime>

namespace qbsmtp::host {

namespace {

using Clock = std::chrono::steady_clock;

// Grace between SIGTERM and SIGKILL for a command that is to end.
constexpr auto kill_grace = std::chrono::seconds(2);

bool stop_seen = false;

sigset_t signal_set(bool with_child) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (with_child) sigaddset(&set, SIGCHLD);
    return set;
}

// Waits for one signal of set until deadline: the signal, or 0 at the
// deadline. EINTR (another signal) waits on for the remaining time.
int take_signal(const sigset_t& set, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
        if (left.count() <= 0) return 0;
        timespec timeout{static_cast<time_t>(left.count() / 1'000'000'000),
                         static_cast<long>(left.count() % 1'000'000'000)};
        const int taken = sigtimedwait(&set, nullptr, &timeout);
        if (taken > 0) return taken;
        if (errno != EINTR) return 0;
    }
}

// Reaps pid if it has ended; true with status set.
bool reaped(int pid, int& status) {
    int raw = 0;
    if (::waitpid(pid, &raw, WNOHANG) != pid) return false;
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return true;
}

// Waits for pid until deadline, noting stop signals; true once reaped.
bool reap_until(int pid, Clock::time_point deadline, int& status, bool& stopped) {
    const sigset_t set = signal_set(true);
    for (;;) {
        if (reaped(pid, status)) return true;
        const int taken = take_signal(set, deadline);
        if (taken == 0) return reaped(pid, status);
        if (taken == SIGINT || taken == SIGTERM) {
            stop_seen = true;
            stopped = true;
            return reaped(pid, status);
        }
    }
}

}  // namespace

void block_stop_signals() {
    const sigset_t set = signal_set(true);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool wait_for_stop_signal(int milliseconds) {
    if (stop_seen) return true;
    const int taken =
        take_signal(signal_set(false), Clock::now() + std::chrono::milliseconds(milliseconds));
    stop_seen = taken == SIGINT || taken == SIGTERM;
    return stop_seen;
}

ChildEnd wait_for_child(int pid, long timeout_seconds) {
    ChildEnd end;
    bool stopped = stop_seen;
    if (!stopped &&
        reap_until(pid, Clock::now() + std::chrono::seconds(timeout_seconds), end.status, stopped))
        return end;
    end.kind = stopped ? ChildEnd::stopped : ChildEnd::timed_out;
    ::kill(-pid, SIGTERM);
    bool ignored = false;
    if (reap_until(pid, Clock::now() + kill_grace, end.status, ignored)) return end;
    ::kill(-pid, SIGKILL);
    int raw = 0;
    while (::waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
    }
    return end;
}

}  // namespace qbsmtp::host
