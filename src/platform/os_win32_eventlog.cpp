// os_win32_eventlog.cpp: the system's event log: RegisterEventSourceA,
// DeregisterEventSource and ReportEventA. The event viewer finds the texts
// in the message table of the module's file, which the key
// EventMessageFile of the source names.
#include "platform/os_win32_native.h"

namespace qbsmtp::os {

HANDLE RegisterEventSourceA(const char* server, const char* source) {
    if (fault_hit(Op::RegisterEventSourceA)) return nullptr;
    return ::RegisterEventSourceA(server, source);
}

BOOL DeregisterEventSource(HANDLE source) {
    return ::DeregisterEventSource(source);
}

BOOL ReportEventA(HANDLE source, WORD type, WORD category, DWORD event_id, void* user_sid,
                  WORD string_count, DWORD data_size, const char** strings, void* data) {
    if (fault_hit(Op::ReportEventA)) return 0;
    if (source != nullptr) event_reported(type, event_id, string_count, strings);
    return ::ReportEventA(source, type, category, event_id, static_cast<PSID>(user_sid),
                          string_count, data_size, strings, data);
}

}  // namespace qbsmtp::os
