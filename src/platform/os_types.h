// os_types.h: the Win32 and Winsock types, constants and records that the
// module's core is written against.
//
// The core talks to the operating system only through the functions of
// os.h, and those functions speak in these types. The layouts follow the
// Windows headers field by field (POSIX: the 32-bit ones), so that the Win32 backend can hand
// them straight through and the POSIX backend converts at its edge.
#pragma once

#include <bit>
#include <cstdint>

namespace qbsmtp::os {

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using LONG = std::int32_t;
using BOOL = std::int32_t;
using UINT = std::uint32_t;
using CHAR = char;
using WCHAR = char16_t;
using REGSAM = DWORD;
using LONGLONG = std::int64_t;

using HANDLE = void*;
using HMODULE = void*;
using HINSTANCE = void*;
using HKEY = struct RegistryNode*;
using SOCKET = std::uintptr_t;

inline HANDLE const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});
inline constexpr SOCKET INVALID_SOCKET = ~SOCKET{0};
inline constexpr int SOCKET_ERROR = -1;

// Predefined registry roots, with the values Windows gives them.
inline HKEY const HKEY_CLASSES_ROOT = reinterpret_cast<HKEY>(std::uintptr_t{0x80000000});
inline HKEY const HKEY_CURRENT_USER = reinterpret_cast<HKEY>(std::uintptr_t{0x80000001});
inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(std::uintptr_t{0x80000002});
inline HKEY const HKEY_USERS = reinterpret_cast<HKEY>(std::uintptr_t{0x80000003});
inline HKEY const HKEY_PERFORMANCE_DATA = reinterpret_cast<HKEY>(std::uintptr_t{0x80000004});
inline HKEY const HKEY_CURRENT_CONFIG = reinterpret_cast<HKEY>(std::uintptr_t{0x80000005});
inline HKEY const HKEY_DYN_DATA = reinterpret_cast<HKEY>(std::uintptr_t{0x80000006});
inline HKEY const INVALID_HKEY = reinterpret_cast<HKEY>(~std::uintptr_t{0});

// Win32 error codes that the core names.
inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_INVALID_FUNCTION = 1;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_NO_MORE_FILES = 18;
inline constexpr DWORD ERROR_WRITE_FAULT = 29;
inline constexpr DWORD ERROR_READ_FAULT = 30;
inline constexpr DWORD ERROR_HANDLE_EOF = 38;
inline constexpr DWORD ERROR_FILE_EXISTS = 80;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_BUFFER_OVERFLOW = 111;
inline constexpr DWORD ERROR_DISK_FULL = 112;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr DWORD ERROR_MORE_DATA = 234;
inline constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
inline constexpr DWORD ERROR_DIRECTORY = 267;
inline constexpr DWORD ERROR_BADKEY = 1010;
inline constexpr DWORD ERROR_ALREADY_INITIALIZED = 1247;

// Winsock error codes.
inline constexpr int WSAEINTR = 10004;
inline constexpr int WSAEBADF = 10009;
inline constexpr int WSAEACCES = 10013;
inline constexpr int WSAEFAULT = 10014;
inline constexpr int WSAEINVAL = 10022;
inline constexpr int WSAEMFILE = 10024;
inline constexpr int WSAEWOULDBLOCK = 10035;
inline constexpr int WSAENOTSOCK = 10038;
inline constexpr int WSAENOPROTOOPT = 10042;
inline constexpr int WSAESOCKTNOSUPPORT = 10044;
inline constexpr int WSAEOPNOTSUPP = 10045;
inline constexpr int WSAEAFNOSUPPORT = 10047;
inline constexpr int WSAEADDRINUSE = 10048;
inline constexpr int WSAEADDRNOTAVAIL = 10049;
inline constexpr int WSAENETDOWN = 10050;
inline constexpr int WSAENETUNREACH = 10051;
inline constexpr int WSAECONNABORTED = 10053;
inline constexpr int WSAECONNRESET = 10054;
inline constexpr int WSAENOBUFS = 10055;
inline constexpr int WSAENOTCONN = 10057;
inline constexpr int WSAEISCONN = 10056;
inline constexpr int WSAESHUTDOWN = 10058;
inline constexpr int WSAETIMEDOUT = 10060;
inline constexpr int WSAECONNREFUSED = 10061;
inline constexpr int WSAEHOSTUNREACH = 10065;
inline constexpr int WSAVERNOTSUPPORTED = 10092;
inline constexpr int WSAHOST_NOT_FOUND = 11001;
inline constexpr int WSATRY_AGAIN = 11002;
inline constexpr int WSANO_RECOVERY = 11003;
inline constexpr int WSANO_DATA = 11004;

// Registry.
inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;
inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;

// Event log types.
inline constexpr WORD EVENTLOG_ERROR_TYPE = 1;
inline constexpr WORD EVENTLOG_WARNING_TYPE = 2;
inline constexpr WORD EVENTLOG_INFORMATION_TYPE = 4;

// FormatMessageA flags.
inline constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100;
inline constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x200;
inline constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x400;
inline constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;

// Files.
inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;
inline constexpr DWORD FILE_SHARE_READ = 1;
inline constexpr DWORD FILE_SHARE_WRITE = 2;
inline constexpr DWORD FILE_SHARE_DELETE = 4;
inline constexpr DWORD MOVEFILE_WRITE_THROUGH = 0x8;
// _beginthreadex: the stack size is what the thread reserves, not what it
// commits at once.
inline constexpr unsigned STACK_SIZE_PARAM_IS_A_RESERVATION = 0x00010000;
inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;
inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;
inline constexpr DWORD MAX_PATH = 260;

// Memory.
inline constexpr UINT LMEM_FIXED = 0;
inline constexpr UINT LMEM_ZEROINIT = 0x40;

// Time zones.
inline constexpr DWORD TIME_ZONE_ID_INVALID = 0xFFFFFFFF;
inline constexpr DWORD TIME_ZONE_ID_UNKNOWN = 0;
inline constexpr DWORD TIME_ZONE_ID_STANDARD = 1;
inline constexpr DWORD TIME_ZONE_ID_DAYLIGHT = 2;

// Sockets, with the Winsock values.
inline constexpr int AF_INET = 2;
inline constexpr int SOCK_STREAM = 1;
inline constexpr int SOL_SOCKET = 0xFFFF;
inline constexpr int SO_REUSEADDR = 4;
inline constexpr int SO_SNDTIMEO = 0x1005;  // DWORD milliseconds, 0 = none
inline constexpr int SO_RCVTIMEO = 0x1006;  // DWORD milliseconds, 0 = none
inline constexpr int IPPROTO_TCP = 6;
inline constexpr int TCP_NODELAY = 1;  // DWORD, non-zero: no Nagle delay
inline constexpr int SD_RECEIVE = 0;
inline constexpr int SD_SEND = 1;
inline constexpr int SD_BOTH = 2;
inline constexpr std::uint32_t INADDR_ANY = 0;

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

struct TIME_ZONE_INFORMATION {
    LONG Bias;  // minutes, UTC minus local time
    WCHAR StandardName[32];
    SYSTEMTIME StandardDate;
    LONG StandardBias;
    WCHAR DaylightName[32];
    SYSTEMTIME DaylightDate;
    LONG DaylightBias;
};

struct WIN32_FIND_DATAA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    CHAR cFileName[MAX_PATH];
    CHAR cAlternateFileName[14];
};

// 64-bit Windows orders the fields of WSADATA and servent otherwise
// (winsock2.h, _WIN64); the core names fields, never their order.
struct WSADATA {
    WORD wVersion;
    WORD wHighVersion;
#ifdef _WIN64
    unsigned short iMaxSockets;
    unsigned short iMaxUdpDg;
    char* lpVendorInfo;
    char szDescription[257];
    char szSystemStatus[129];
#else
    char szDescription[257];
    char szSystemStatus[129];
    unsigned short iMaxSockets;
    unsigned short iMaxUdpDg;
    char* lpVendorInfo;
#endif
};

struct in_addr {
    std::uint32_t s_addr;  // network byte order
};

struct sockaddr {
    std::uint16_t sa_family;
    char sa_data[14];
};

struct sockaddr_in {
    std::int16_t sin_family;
    std::uint16_t sin_port;  // network byte order
    in_addr sin_addr;
    char sin_zero[8];
};

// Winsock's service entry: s_port stands before s_proto.
struct servent {
    char* s_name;
    char** s_aliases;
#ifdef _WIN64
    char* s_proto;
    std::int16_t s_port;  // network byte order
#else
    std::int16_t s_port;  // network byte order
    char* s_proto;
#endif
};

struct hostent {
    char* h_name;
    char** h_aliases;
    std::int16_t h_addrtype;
    std::int16_t h_length;
    char** h_addr_list;
};

// Byte order of the wire; plain arithmetic, so it needs no OS header.
constexpr std::uint16_t htons(std::uint16_t v) {
    if constexpr (std::endian::native == std::endian::little)
        return static_cast<std::uint16_t>((v >> 8) | (v << 8));
    else
        return v;
}
constexpr std::uint16_t ntohs(std::uint16_t v) {
    return htons(v);
}
constexpr std::uint32_t htonl(std::uint32_t v) {
    if constexpr (std::endian::native == std::endian::little)
        return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
    else
        return v;
}
constexpr std::uint32_t ntohl(std::uint32_t v) {
    return htonl(v);
}

}  // namespace qbsmtp::os
