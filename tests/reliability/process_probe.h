// process_probe.h: what the reliability tests measure of their own process
// (descriptors, resident sizes, session threads) and how heavy a run may be.
//
// Sanitizers slow the code several times and the 32-bit suite may run under
// qemu-i386, so those runs are lighter. Resident sizes there count shadow
// memory or the emulator's own, so memory bounds are checked only without.
#pragma once

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "reception/smtp_session.h"

namespace qbsmtp::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(QBSMTP_TESTS_EMULATED)
inline constexpr bool resident_size_meaningful = false;
#else
inline constexpr bool resident_size_meaningful = true;
#endif
inline constexpr bool light_run = !resident_size_meaningful || sizeof(void*) == 4;

// The descriptors the process holds now: the count tells a leak, the list
// ("N -> target" lines) says what leaked.
struct Descriptors {
    int count = 0;
    std::string list;
};
inline Descriptors descriptors() {
    Descriptors held;
    if (DIR* directory = ::opendir("/proc/self/fd")) {
        const int own = ::dirfd(directory);
        while (const dirent* entry = ::readdir(directory)) {
            if (entry->d_name[0] == '.' || std::stoi(entry->d_name) == own) continue;
            char target[512] = {};
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
            held.list +=
                entry->d_name +
                (" -> " + std::string(target, length > 0 ? static_cast<std::size_t>(length) : 0u)) +
                "\n";
            ++held.count;
        }
        ::closedir(directory);
    }
    return held;
}

// Waits for every session thread to end: each ends within its time-out of
// the last byte its peer sent, so twice that is a bound only a hang exceeds.
inline bool wait_for_no_sessions(int session_timeout_seconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(2 * session_timeout_seconds);
    while (sessions_running.load() != 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Resident size now (VmRSS) and at its peak, in KiB.
inline long resident_kib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}
inline long peak_resident_kib() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace qbsmtp::test
