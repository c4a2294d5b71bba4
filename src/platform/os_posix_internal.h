// os_posix_internal.h: what the files of the POSIX backend share, and the
// few hooks that the platform tests use.
//
// Handles: every HANDLE that the backend gives out points at an object that
// starts with a HandleObject, whose kind says what it is. Errors: native
// errno values become Win32 and Winsock codes here and nowhere else
// (os_posix_error.cpp holds the one table). No OS header is included here,
// so the tests can include this file too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/os.h"

namespace qbsmtp::os::posix {

// ---- Handle objects ----------------------------------------------------------
enum class HandleKind : std::uint32_t {
    file = 0x454C4946,          // "FILE"
    thread = 0x44524854,        // "THRD"
    find = 0x444E4946,          // "FIND"
    event_source = 0x43525345,  // "ESRC"
};

struct HandleObject {
    HandleKind kind;
};

// The backend keeps a set of its live handles, so that a stale or foreign
// handle fails with ERROR_INVALID_HANDLE instead of touching freed memory.
void register_handle(HandleObject* object);
// The object behind handle if it is a live handle of that kind, else null.
// Null and INVALID_HANDLE_VALUE are never valid.
HandleObject* handle_of(HANDLE handle, HandleKind kind);
// Removes a live handle of that kind from the set and gives its object
// (the caller frees it), or null if it is not one.
HandleObject* take_handle(HANDLE handle, HandleKind kind);

// CloseHandle dispatches by kind to these.
BOOL close_file_handle(HANDLE handle);    // os_posix_file.cpp
BOOL close_thread_handle(HANDLE handle);  // os_posix_thread.cpp

// ---- Errors ------------------------------------------------------------------
// The Win32 code for a native errno value, as a file operation reports it.
DWORD win32_from_errno(int error_number);
// The Winsock code for a native errno value, as a socket operation reports it.
int winsock_from_errno(int error_number);
// Sets the last error from errno for a failed operation on path: ENOENT
// becomes 3 when a directory on the way is missing, else 2.
void set_file_error(int error_number, const char* path);
// The Win32 code of the failure of _beginthreadex in this thread.
void set_doserrno(DWORD code);

// ---- Names -------------------------------------------------------------------
// 0 when path may name a file on Windows too, else the Win32 code to fail
// with: 123 for a character that Windows refuses in a name, 206 when the
// path (with its NUL) would not fit in max_bytes.
DWORD check_windows_path(const char* path, std::size_t max_bytes);
// True when name matches pattern, '*' and '?' as wildcards, ASCII case folded.
bool wildcard_match(const char* pattern, const char* name);
// ASCII case folding, as Windows compares names.
char fold_ascii(char c);
std::string fold_ascii(const std::string& text);

// ---- The platform prefix -------------------------------------------------------
// The directory of the backend's own state: $QBSMTP_PREFIX, else
// $HOME/.qbsmtp; read and created at the first call in the process. Empty
// when it could not be made.
const std::string& prefix_directory();
// prefix_directory() + "/" + name.
std::string prefix_file(const char* name);

// ---- Time --------------------------------------------------------------------
// Held around every call that reads or sets the C library's time-zone state
// (tzset, localtime_r, gmtime_r, syslog): glibc locks that state inside,
// where a thread checker cannot see it, so the order is made visible here.
std::mutex& time_zone_lock();
// A FILETIME from seconds and nanoseconds since 1970-01-01 UTC.
FILETIME filetime_from_unix(std::int64_t seconds, std::int64_t nanoseconds);

// ---- Text --------------------------------------------------------------------
// Appends text (UTF-8) to out as a JSON string with its quotes.
void append_json_string(std::string& out, const std::string& text);

// ---- Resources and test hooks ------------------------------------------------------
// The registered catalogue text of an event id, or null.
const char* find_message_text(DWORD id);
// The catalogue's text of id with %1.. filled from strings, or the strings
// joined by blanks when the catalogue has no text for id.
std::string expand_event_text(DWORD id, const char* const* strings, std::size_t count);

// Test hook: the size at which events.jsonl is rotated (16 MiB unless set).
void set_event_log_rotation_limit(std::size_t bytes);

}  // namespace qbsmtp::os::posix
