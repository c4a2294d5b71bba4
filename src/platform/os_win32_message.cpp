// os_win32_message.cpp: message texts: FormatMessageA and LoadStringA over
// the system's texts and the module's own resources.
//
// The event texts and the Winsock strings are resources of QBSMTP.dll
// itself (message table 1 and the string table, language 1040, generated
// from the catalogue at build time), so set_module_resources has nothing
// to do here.
#include "platform/os_win32_native.h"

namespace qbsmtp::os {

void set_module_resources(const ModuleResources& /*resources*/) {}

DWORD FormatMessageA(DWORD flags, const void* source, DWORD message_id, DWORD language_id,
                     char* buffer, DWORD size, va_list* arguments) {
    if (fault_hit(Op::FormatMessageA)) return 0;
    return ::FormatMessageA(flags, source, message_id, language_id, buffer, size, arguments);
}

int LoadStringA(HINSTANCE instance, UINT id, char* buffer, int buffer_max) {
    if (fault_hit(Op::LoadStringA)) return 0;
    return ::LoadStringA(static_cast<::HINSTANCE>(instance), id, buffer, buffer_max);
}

}  // namespace qbsmtp::os
