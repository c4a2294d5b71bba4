// os_win32_find.cpp: FindFirstFileA, FindNextFileA and FindClose. Windows
// matches the pattern; the entry is copied into our record, which has the
// same layout.
#include "platform/os_win32_native.h"

namespace qbsmtp::os {

HANDLE FindFirstFileA(const char* pattern, WIN32_FIND_DATAA* data) {
    if (fault_hit(Op::FindFirstFileA)) return INVALID_HANDLE_VALUE;
    if (data == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    ::WIN32_FIND_DATAA native;
    HANDLE search = ::FindFirstFileA(pattern, &native);
    if (search != INVALID_HANDLE_VALUE) *data = win32::same_layout<WIN32_FIND_DATAA>(native);
    return search;
}

BOOL FindNextFileA(HANDLE search, WIN32_FIND_DATAA* data) {
    if (fault_hit(Op::FindNextFileA)) return 0;
    if (data == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    ::WIN32_FIND_DATAA native;
    BOOL result = ::FindNextFileA(search, &native);
    if (result) *data = win32::same_layout<WIN32_FIND_DATAA>(native);
    return result;
}

BOOL FindClose(HANDLE search) {
    return ::FindClose(search);
}

}  // namespace qbsmtp::os
