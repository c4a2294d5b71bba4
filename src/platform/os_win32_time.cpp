// os_win32_time.cpp: the clock and the time zone: GetLocalTime,
// GetSystemTime, GetTimeZoneInformation, SystemTimeToFileTime,
// FileTimeToSystemTime and CompareFileTime. The records are copied through;
// their layouts are those of Windows (os_win32_native.h).
#include "platform/os_win32_native.h"

namespace qbsmtp::os {

void GetLocalTime(SYSTEMTIME* time) {
    ::SYSTEMTIME native;
    ::GetLocalTime(&native);
    *time = win32::same_layout<SYSTEMTIME>(native);
}

void GetSystemTime(SYSTEMTIME* time) {
    ::SYSTEMTIME native;
    ::GetSystemTime(&native);
    *time = win32::same_layout<SYSTEMTIME>(native);
}

DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* zone) {
    if (fault_hit(Op::GetTimeZoneInformation)) return TIME_ZONE_ID_INVALID;
    if (zone == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return TIME_ZONE_ID_INVALID;
    }
    ::TIME_ZONE_INFORMATION native;
    DWORD result = ::GetTimeZoneInformation(&native);
    if (result != TIME_ZONE_ID_INVALID) *zone = win32::same_layout<TIME_ZONE_INFORMATION>(native);
    return result;
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* time, FILETIME* file_time) {
    if (fault_hit(Op::SystemTimeToFileTime)) return 0;
    if (time == nullptr || file_time == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    ::SYSTEMTIME native = win32::same_layout<::SYSTEMTIME>(*time);
    ::FILETIME result;
    if (!::SystemTimeToFileTime(&native, &result)) return 0;
    *file_time = win32::same_layout<FILETIME>(result);
    return 1;
}

BOOL FileTimeToSystemTime(const FILETIME* file_time, SYSTEMTIME* time) {
    if (file_time == nullptr || time == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    ::FILETIME native = win32::same_layout<::FILETIME>(*file_time);
    ::SYSTEMTIME result;
    if (!::FileTimeToSystemTime(&native, &result)) return 0;
    *time = win32::same_layout<SYSTEMTIME>(result);
    return 1;
}

LONG CompareFileTime(const FILETIME* a, const FILETIME* b) {
    ::FILETIME left = win32::same_layout<::FILETIME>(*a);
    ::FILETIME right = win32::same_layout<::FILETIME>(*b);
    return ::CompareFileTime(&left, &right);
}

}  // namespace qbsmtp::os
