// os_win32_module.cpp: the module's own file and load references:
// GetModuleFileNameA, GetModuleHandleA, LoadLibraryA and FreeLibrary.
// Our HMODULE is the system's, as DllMain received it.
#include "platform/os_win32_native.h"

namespace qbsmtp::os {

DWORD GetModuleFileNameA(HMODULE module, char* file_name, DWORD size) {
    return ::GetModuleFileNameA(static_cast<::HMODULE>(module), file_name, size);
}

HMODULE GetModuleHandleA(const char* module_name) {
    return ::GetModuleHandleA(module_name);
}

HMODULE LoadLibraryA(const char* file_name) {
    if (fault_hit(Op::LoadLibraryA)) return nullptr;
    return ::LoadLibraryA(file_name);
}

BOOL FreeLibrary(HMODULE module) {
    return ::FreeLibrary(static_cast<::HMODULE>(module));
}

}  // namespace qbsmtp::os
