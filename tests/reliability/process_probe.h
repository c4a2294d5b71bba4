// process_probe.h: what the reliability tests measure of their own
// process (open descriptors, resident size, peak resident size) and how
// heavy a run may be in this build.
//
// Under a sanitizer, or as a 32-bit program (which here runs under an
// emulator), the tests scale their counts and sizes down; each test says
// by how much. Resident sizes mean nothing under a sanitizer (shadow
// memory, quarantine) or an emulator (its translation cache and its own
// buffers are counted too), so memory bounds are checked only without
// either.
#pragma once

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "reception/smtp_session.h"

namespace qbsmtp::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool under_sanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool under_sanitizer = true;
#else
inline constexpr bool under_sanitizer = false;
#endif
#else
inline constexpr bool under_sanitizer = false;
#endif

#ifdef QBSMTP_TESTS_EMULATED
inline constexpr bool under_emulator = true;
#else
inline constexpr bool under_emulator = false;
#endif

// Whether resident sizes measure the module's memory.
inline constexpr bool resident_size_meaningful = !under_sanitizer && !under_emulator;

// A lighter run: sanitizers slow the code several times, and the 32-bit
// suite may run under qemu-i386.
inline constexpr bool light_run = under_sanitizer || sizeof(void*) == 4;

// A factor on the counts and sizes of a run, from the environment
// variable QBSMTP_RELIABILITY_SCALE (default 1), for longer runs by hand.
inline double run_scale() {
    const char* text = std::getenv("QBSMTP_RELIABILITY_SCALE");
    const double scale = text != nullptr ? std::atof(text) : 1.0;
    return scale > 0 ? scale : 1.0;
}

// Descriptors the process holds now.
inline int open_descriptors() {
    int count = 0;
    if (DIR* directory = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(directory))
            if (entry->d_name[0] != '.') ++count;
        ::closedir(directory);
        --count;  // the one opendir holds
    }
    return count;
}

// What each descriptor refers to, for failure messages.
inline std::string descriptor_list() {
    std::string list;
    if (DIR* directory = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(directory)) {
            if (entry->d_name[0] == '.') continue;
            char target[512] = {};
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
            list += std::string(entry->d_name) + " -> " +
                    (length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "?") +
                    "\n";
        }
        ::closedir(directory);
    }
    return list;
}

// Waits up to seconds for every session thread to end; true if they did.
inline bool wait_for_no_sessions(int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (sessions_running.load() != 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Resident size now, in KiB (VmRSS of /proc/self/status).
inline long resident_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

// Peak resident size so far, in KiB.
inline long peak_resident_kib() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace qbsmtp::test
