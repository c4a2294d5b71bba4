// event_reporter.h: EventReporter, the one way the module reports to the
// system's event log.
//
// A report is an event id and up to three insertion strings, never a
// finished text; empty or null strings are reported as "null". Every
// reporting operation returns 0, so a failing function can return its
// report's result. The severity of an id is in its top two bits.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/os.h"

namespace qbsmtp {

class EventReporter {
  public:
    os::HMODULE message_library = nullptr;  // load reference held from register_source to close
    std::atomic<std::uint32_t> logging_mask{0};  // bits set by the host; read without a lock
    os::HANDLE source_handle = nullptr;          // the open event source, null if none

    // Registers the source named after the module's file; 1 or 0.
    int init();
    int register_source(const char* source, const char* path);
    void close();

    int report(std::uint32_t id);
    int report(std::uint32_t id, const char* a);
    int report(std::uint32_t id, const char* a, const char* b);
    int report(std::uint32_t id, const char* a, const char* b, const char* c);
    // As report, with the system text of error as the last string; sets the
    // thread's last error to error.
    int report_error(std::uint32_t id, const char* a, std::uint32_t error);
    int report_error(std::uint32_t id, const char* a, const char* b, std::uint32_t error);
    // Reports only if bits AND logging_mask is non-zero.
    void report_if(std::uint32_t bits, std::uint32_t id);
    void report_if(std::uint32_t bits, std::uint32_t id, const char* a);
    std::uint32_t mask_has(std::uint32_t bits) const {
        return bits & logging_mask.load(std::memory_order_relaxed);
    }

  private:
    int report_strings(std::uint32_t id, const char** strings, int count);
};

// The event type that the top two bits of id select.
os::WORD event_type_of(std::uint32_t id);

}  // namespace qbsmtp
