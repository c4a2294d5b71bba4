// os_win32_native.h: what the files of the Win32 backend share: the
// Windows headers, included in the one order that works, and the checks
// that our records have the layouts of their Windows namesakes.
//
// os.h comes first. The Windows headers define many of its names as macros
// (ERROR_SUCCESS, INVALID_HANDLE_VALUE, MAX_PATH, s_addr, AF_INET, ...),
// which would break its declarations if they were seen before it; after it,
// the macros expand to the same values. So a backend file spells such a
// constant unqualified, never as os::NAME, and never touches in_addr's
// s_addr (a macro of winsock2.h).
//
// The records of os_types.h are the 32-bit Windows layouts, so the backend
// copies them through with memcpy (to_native/from_native) or hands a
// pointer on where Windows owns the storage; every record it does that
// with is checked below.
#pragma once

#include "platform/os.h"
#include "platform/os_fault.h"

// winsock2.h before windows.h, or windows.h drags in the old winsock.h.
#include <winsock2.h>
// (a block of its own, so that sorting keeps the order)
#include <windows.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace qbsmtp::os::win32 {

// Same size and same field offsets: the records pass through unchanged.
#define QBSMTP_SAME_FIELD(ours, native, field) \
    static_assert(offsetof(ours, field) == offsetof(native, field), #ours "::" #field)

static_assert(sizeof(os::FILETIME) == sizeof(::FILETIME));
QBSMTP_SAME_FIELD(os::FILETIME, ::FILETIME, dwHighDateTime);

static_assert(sizeof(os::SYSTEMTIME) == sizeof(::SYSTEMTIME));
QBSMTP_SAME_FIELD(os::SYSTEMTIME, ::SYSTEMTIME, wDayOfWeek);
QBSMTP_SAME_FIELD(os::SYSTEMTIME, ::SYSTEMTIME, wMilliseconds);

static_assert(sizeof(os::TIME_ZONE_INFORMATION) == sizeof(::TIME_ZONE_INFORMATION));
static_assert(sizeof(os::WCHAR) == sizeof(::WCHAR));
QBSMTP_SAME_FIELD(os::TIME_ZONE_INFORMATION, ::TIME_ZONE_INFORMATION, StandardName);
QBSMTP_SAME_FIELD(os::TIME_ZONE_INFORMATION, ::TIME_ZONE_INFORMATION, StandardDate);
QBSMTP_SAME_FIELD(os::TIME_ZONE_INFORMATION, ::TIME_ZONE_INFORMATION, StandardBias);
QBSMTP_SAME_FIELD(os::TIME_ZONE_INFORMATION, ::TIME_ZONE_INFORMATION, DaylightName);
QBSMTP_SAME_FIELD(os::TIME_ZONE_INFORMATION, ::TIME_ZONE_INFORMATION, DaylightDate);
QBSMTP_SAME_FIELD(os::TIME_ZONE_INFORMATION, ::TIME_ZONE_INFORMATION, DaylightBias);

static_assert(sizeof(os::WIN32_FIND_DATAA) == sizeof(::WIN32_FIND_DATAA));
QBSMTP_SAME_FIELD(os::WIN32_FIND_DATAA, ::WIN32_FIND_DATAA, ftLastWriteTime);
QBSMTP_SAME_FIELD(os::WIN32_FIND_DATAA, ::WIN32_FIND_DATAA, nFileSizeHigh);
QBSMTP_SAME_FIELD(os::WIN32_FIND_DATAA, ::WIN32_FIND_DATAA, nFileSizeLow);
QBSMTP_SAME_FIELD(os::WIN32_FIND_DATAA, ::WIN32_FIND_DATAA, cFileName);
QBSMTP_SAME_FIELD(os::WIN32_FIND_DATAA, ::WIN32_FIND_DATAA, cAlternateFileName);

static_assert(sizeof(os::WSADATA) == sizeof(::WSADATA));
QBSMTP_SAME_FIELD(os::WSADATA, ::WSADATA, szDescription);
QBSMTP_SAME_FIELD(os::WSADATA, ::WSADATA, szSystemStatus);
QBSMTP_SAME_FIELD(os::WSADATA, ::WSADATA, iMaxSockets);
QBSMTP_SAME_FIELD(os::WSADATA, ::WSADATA, lpVendorInfo);

static_assert(sizeof(os::sockaddr) == sizeof(::sockaddr));
static_assert(sizeof(os::sockaddr_in) == sizeof(::sockaddr_in));
QBSMTP_SAME_FIELD(os::sockaddr_in, ::sockaddr_in, sin_port);
QBSMTP_SAME_FIELD(os::sockaddr_in, ::sockaddr_in, sin_addr);

// Winsock owns these entries; the core reads them in place.
static_assert(sizeof(os::hostent) == sizeof(::hostent));
QBSMTP_SAME_FIELD(os::hostent, ::hostent, h_aliases);
QBSMTP_SAME_FIELD(os::hostent, ::hostent, h_addrtype);
QBSMTP_SAME_FIELD(os::hostent, ::hostent, h_length);
QBSMTP_SAME_FIELD(os::hostent, ::hostent, h_addr_list);
static_assert(sizeof(os::servent) == sizeof(::servent));
QBSMTP_SAME_FIELD(os::servent, ::servent, s_aliases);
QBSMTP_SAME_FIELD(os::servent, ::servent, s_port);
QBSMTP_SAME_FIELD(os::servent, ::servent, s_proto);

#undef QBSMTP_SAME_FIELD

static_assert(sizeof(os::DWORD) == sizeof(::DWORD) && sizeof(os::LONG) == sizeof(::LONG));
static_assert(sizeof(os::SOCKET) == sizeof(::SOCKET));
static_assert(sizeof(os::HKEY) == sizeof(::HKEY));

// A copy of a record in the other layout; the checks above make it exact.
template <typename To, typename From>
To same_layout(const From& from) {
    static_assert(sizeof(To) == sizeof(From) && std::is_trivially_copyable_v<To> &&
                  std::is_trivially_copyable_v<From>);
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

inline ::HKEY native_key(os::HKEY key) {
    return reinterpret_cast<::HKEY>(key);
}
inline os::HKEY our_key(::HKEY key) {
    return reinterpret_cast<os::HKEY>(key);
}

// The failure of _beginthreadex in this thread, for doserrno().
void set_doserrno(os::DWORD code);

}  // namespace qbsmtp::os::win32
