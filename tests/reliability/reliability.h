// reliability.h: what the reliability tests share: the headers they use and
// what they measure of their own process (descriptors, resident sizes,
// session threads), and how heavy a run may be.
//
// Sanitizers slow the code several times and the 32-bit suite may run under
// qemu-i386, so those runs are lighter. Resident sizes there count shadow
// memory or the emulator's own, so memory bounds are checked only without.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "qbsmtp/qbsmtp.h"
#include "reception/smtp_session.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(QBSMTP_TESTS_EMULATED)
inline constexpr bool resident_size_meaningful = false;
#else
inline constexpr bool resident_size_meaningful = true;
#endif
// Light sizes also on Windows, where each file the module makes costs more
// (under Wine, several times as much as on Linux).
#ifdef _WIN32
inline constexpr bool light_run = true;
#else
inline constexpr bool light_run = !resident_size_meaningful || sizeof(void*) == 4;
#endif

// The descriptors the process holds now (one of them the listing's own).
inline long open_descriptors() {
#ifdef _WIN32
    return open_handle_count();
#endif
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
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

// Resident size in KiB: now ("VmRSS:"), or at its peak so far ("VmHWM:").
inline long resident_kib(const std::string& field = "VmRSS:") {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::stol(line.substr(field.size()));
    return -1;
}

// QBSMTP_RELIABILITY_SCALE multiplies the sizes of a run, for longer runs by hand.
inline const double run_scale = std::getenv("QBSMTP_RELIABILITY_SCALE")
                                    ? std::atof(std::getenv("QBSMTP_RELIABILITY_SCALE"))
                                    : 1.0;

}  // namespace qbsmtp::test
