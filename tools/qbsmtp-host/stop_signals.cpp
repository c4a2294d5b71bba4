// stop_signals.cpp: blocked stop signals, taken with sigtimedwait.
#include "stop_signals.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <ctime>

namespace qbsmtp::host {

namespace {

sigset_t stop_set() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void block_stop_signals() {
    const sigset_t set = stop_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool wait_for_stop_signal(int milliseconds) {
    const sigset_t set = stop_set();
    timespec timeout{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1'000'000L};
    for (;;) {
        const int taken = sigtimedwait(&set, nullptr, &timeout);
        if (taken == SIGINT || taken == SIGTERM) return true;
        // EINTR (another signal): wait on; the remaining time is not
        // tracked, a poll interval may stretch a little.
        if (taken < 0 && errno == EINTR) continue;
        return false;
    }
}

}  // namespace qbsmtp::host
