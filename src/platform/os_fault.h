// os_fault.h: the fault seam. Tests make a chosen platform operation fail
// with a chosen error, so that the module's failure paths run for real.
//
// Every function of os.h asks fault_hit() first; with nothing armed that is
// one relaxed atomic load. A hit sets the last error (or the Winsock error)
// to the armed code and the function returns its failure value.
#pragma once

#include <string>
#include <vector>

#include "platform/os_types.h"

namespace qbsmtp::os {

enum class Op : unsigned {
    BeginThread,
    LocalAlloc,
    CreateFileA,
    ReadFile,
    WriteFile,
    SetFilePointerEx,
    GetFileSizeEx,
    FlushFileBuffers,
    CloseHandle,  // fails only for file handles, which it releases all the same
    CopyFileA,
    MoveFileA,
    DeleteFileA,
    CreateDirectoryA,
    GetFileAttributesA,
    FindFirstFileA,
    FindNextFileA,
    RegOpenKeyExA,
    RegCreateKeyExA,
    RegQueryValueExA,
    RegSetValueExA,
    RegEnumKeyExA,
    RegisterEventSourceA,
    ReportEventA,
    FormatMessageA,
    LoadStringA,
    LoadLibraryA,
    WSAStartup,
    gethostname,
    gethostbyname,
    getservbyname,
    socket,
    bind,
    setsockopt,
    listen,
    accept,
    connect,
    recv,
    send,
    GetTimeZoneInformation,
    SystemTimeToFileTime,
    Count
};

// Arms a fault: the nth call (1 = the next) of op from now on fails with
// error; with every_after set, that call and all later ones fail.
// Counting is over all threads.
void fault_arm(Op op, unsigned nth, DWORD error, bool every_after = false);
// Disarms every fault.
void fault_clear();
// Calls of op seen since it was last armed or cleared.
unsigned fault_calls(Op op);

// Used by the backends: true when this call is to fail; the armed error is
// then set as last error (and as Winsock error).
bool fault_hit(Op op);

// Event capture, for tests that compare the events a run reported the same
// way on every platform: while it is on, each ReportEventA that passes the
// seam with an open source is recorded, its strings as the module gave them
// (code page 1252). Backends call event_reported.
struct ReportedEvent {
    WORD type;
    DWORD id;
    std::vector<std::string> strings;
};
void event_capture(bool on);
std::vector<ReportedEvent> events_captured();
void event_reported(WORD type, DWORD id, WORD string_count, const char** strings);

// RAII for tests: disarms everything when it goes out of scope.
struct FaultScope {
    FaultScope() = default;
    FaultScope(Op op, unsigned nth, DWORD error, bool every_after = false) {
        fault_arm(op, nth, error, every_after);
    }
    ~FaultScope() { fault_clear(); }
    FaultScope(const FaultScope&) = delete;
    FaultScope& operator=(const FaultScope&) = delete;
};

}  // namespace qbsmtp::os
