// os.h: every operating-system service the module uses, and nothing else.
//
// The core of the module calls only these functions. They carry the names,
// arguments and failure conventions of their Win32 and Winsock namesakes:
// a Win32 code in the thread's last error, a Winsock code from
// WSAGetLastError (the same per-thread slot, as on Windows). A backend
// implements them: os_posix_*.cpp over POSIX, and later one over Win32.
//
// Native errors are mapped to Win32/Winsock codes inside the backend and
// nowhere else. Every function here whose failure the module acts on passes
// through the fault seam (os_fault.h) first, so tests can make any one of
// them fail. The seam counts calls of these functions, not of the system
// calls behind them: the files a function uses inside (registry.reg under
// the Reg* functions, events.jsonl under ReportEventA, the directory that
// FindFirstFileA opens) fail through that function's own entry; the
// directory sync of MoveFileExA is counted as FlushFileBuffers. In the
// POSIX backend every descriptor call goes through os_posix_fd.h (EINTR
// retried, writes looped to the end, close-on-exec).
//
// Outside the seam, because no failure of theirs changes what the module
// does: the error slots (GetLastError, SetLastError, WSAGetLastError,
// WSASetLastError, doserrno); the releases, whose result nobody reads
// (LocalFree, FindClose, RegCloseKey, DeregisterEventSource, FreeLibrary,
// closesocket, shutdown); the clocks and time arithmetic (Sleep,
// GetTickCount, GetLocalTime, GetSystemTime, FileTimeToSystemTime,
// CompareFileTime); the module's own identity, which exists once the loader
// has mapped it (GetModuleHandleA, GetModuleFileNameA); LocalSize;
// getsockname (tests only); set_module_resources (data, no OS call).
#pragma once

#include <cstdarg>
#include <cstddef>

#include "platform/os_types.h"

namespace qbsmtp::os {

// ---- Errors and threads -------------------------------------------------
DWORD GetLastError();
void SetLastError(DWORD code);
int WSAGetLastError();
void WSASetLastError(int code);

using ThreadEntry = unsigned (*)(void* argument);
// Starts a thread; the result is a handle that CloseHandle releases (the
// thread runs on), or 0 with the reason in doserrno().
std::uintptr_t _beginthreadex(void* security, unsigned stack_size, ThreadEntry entry,
                              void* argument, unsigned flags, unsigned* thread_id);
// The C runtime's view of the last failure of _beginthreadex, as a Win32 code.
DWORD doserrno();
BOOL CloseHandle(HANDLE handle);
void Sleep(DWORD milliseconds);
DWORD GetTickCount();

// ---- Memory ----------------------------------------------------------------
// Blocks that cross the module boundary. LocalSize gives the size asked for.
void* LocalAlloc(UINT flags, std::size_t bytes);
void* LocalFree(void* block);  // null on success
std::size_t LocalSize(void* block);

// ---- Files -----------------------------------------------------------------
HANDLE CreateFileA(const char* name, DWORD access, DWORD share_mode, void* security,
                   DWORD disposition, DWORD flags, HANDLE template_file);
// Blocking; a read of 0 bytes with a TRUE result is the end of the file.
BOOL ReadFile(HANDLE file, void* buffer, DWORD to_read, DWORD* read, void* overlapped);
// Writes all bytes or fails.
BOOL WriteFile(HANDLE file, const void* buffer, DWORD to_write, DWORD* written, void* overlapped);
// Asks the system to put the file's data on the disk before it returns.
BOOL FlushFileBuffers(HANDLE file);
BOOL SetFilePointerEx(HANDLE file, LONGLONG distance, LONGLONG* new_position, DWORD method);
BOOL GetFileSizeEx(HANDLE file, LONGLONG* size);
BOOL CopyFileA(const char* existing, const char* target, BOOL fail_if_exists);
// Renames; fails with ERROR_ALREADY_EXISTS if the target exists.
BOOL MoveFileA(const char* existing, const char* target);
// MoveFileA with flags; of them only MOVEFILE_WRITE_THROUGH: the call returns
// once the new name is on the disk (POSIX: the target's directory is synced
// after the rename; a failed sync fails the call, the file keeping its new
// name). Counted by the fault seam as MoveFileA, its sync as FlushFileBuffers.
BOOL MoveFileExA(const char* existing, const char* target, DWORD flags);
BOOL DeleteFileA(const char* name);
BOOL CreateDirectoryA(const char* path, void* security);
DWORD GetFileAttributesA(const char* name);
// Patterns match the last component with '*' and '?', ignoring case.
HANDLE FindFirstFileA(const char* pattern, WIN32_FIND_DATAA* data);
BOOL FindNextFileA(HANDLE search, WIN32_FIND_DATAA* data);
BOOL FindClose(HANDLE search);
// The separator of paths on this platform: '\\' on Windows, '/' on POSIX.
inline constexpr char path_separator =
#ifdef _WIN32
    '\\';
#else
    '/';
#endif

// ---- Registry --------------------------------------------------------------
// Results are Win32 codes (ERROR_SUCCESS on success), as RegXxx gives them.
LONG RegOpenKeyExA(HKEY key, const char* sub_key, DWORD options, REGSAM access, HKEY* result);
LONG RegCreateKeyExA(HKEY key, const char* sub_key, DWORD reserved, char* class_name, DWORD options,
                     REGSAM access, void* security, HKEY* result, DWORD* disposition);
LONG RegCreateKeyA(HKEY key, const char* sub_key, HKEY* result);
LONG RegCloseKey(HKEY key);
LONG RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                      DWORD* size);
LONG RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data,
                    DWORD size);
LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* name_size, DWORD* reserved,
                   char* class_name, DWORD* class_size, FILETIME* last_write);

// ---- Event log, messages and the module's own file ---------------------
HANDLE RegisterEventSourceA(const char* server, const char* source);
BOOL DeregisterEventSource(HANDLE source);
BOOL ReportEventA(HANDLE source, WORD type, WORD category, DWORD event_id, void* user_sid,
                  WORD string_count, DWORD data_size, const char** strings, void* data);
DWORD FormatMessageA(DWORD flags, const void* source, DWORD message_id, DWORD language_id,
                     char* buffer, DWORD size, va_list* arguments);
int LoadStringA(HINSTANCE instance, UINT id, char* buffer, int buffer_max);
DWORD GetModuleFileNameA(HMODULE module, char* file_name, DWORD size);
HMODULE GetModuleHandleA(const char* module_name);
HMODULE LoadLibraryA(const char* file_name);
BOOL FreeLibrary(HMODULE module);

// The module's resources: on Windows they live in the module's file; the
// POSIX backend takes them from the catalogue through this table, which the
// frame registers before anything reports.
struct MessageResource {
    DWORD id;          // event id as reported
    const char* text;  // code page 1252, with its CR LF
};
struct StringResource {
    UINT number;
    const char* text;
};
struct ModuleResources {
    const MessageResource* messages;
    std::size_t message_count;
    const StringResource* strings;
    std::size_t string_count;
};
void set_module_resources(const ModuleResources& resources);

// ---- Winsock ---------------------------------------------------------------
int WSAStartup(WORD version, WSADATA* data);
int gethostname(char* name, int size);
// Thread-safe: the entry lives until the same thread calls again.
hostent* gethostbyname(const char* name);
// The entry stays valid for the life of the process.
servent* getservbyname(const char* name, const char* protocol);
SOCKET socket(int family, int type, int protocol);
int bind(SOCKET s, const sockaddr* address, int length);
int setsockopt(SOCKET s, int level, int option, const char* value, int length);
int listen(SOCKET s, int backlog);
SOCKET accept(SOCKET s, sockaddr* address, int* length);
int connect(SOCKET s, const sockaddr* address, int length);
int shutdown(SOCKET s, int how);
int recv(SOCKET s, char* buffer, int length, int flags);
// Sends all bytes or fails (a blocking Winsock send).
int send(SOCKET s, const char* buffer, int length, int flags);
int closesocket(SOCKET s);
// The local address a socket is bound to (useful after binding port 0).
int getsockname(SOCKET s, sockaddr* address, int* length);

// The longest listen queue to ask for: Winsock 2's SOMAXCONN. The system
// gives its own maximum for it (Linux cuts a larger backlog down to
// net.core.somaxconn).
inline constexpr int listen_queue_maximum = 0x7FFFFFFF;

// Whether a listening socket takes SO_REUSEADDR before its first bind. A
// POSIX bind is refused while TIME_WAIT ends of the port's earlier
// connections remain, unless the socket that left them had the option too;
// there it never lets a socket take a port on which another one listens.
// A Windows bind passes TIME_WAIT ends by itself, and SO_REUSEADDR there
// would let a socket take a port in use.
inline constexpr bool reuse_address_before_bind =
#ifdef _WIN32
    false;
#else
    true;
#endif

// ---- Time ------------------------------------------------------------------
void GetLocalTime(SYSTEMTIME* time);
void GetSystemTime(SYSTEMTIME* time);
DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* zone);
BOOL SystemTimeToFileTime(const SYSTEMTIME* time, FILETIME* file_time);
BOOL FileTimeToSystemTime(const FILETIME* file_time, SYSTEMTIME* time);
LONG CompareFileTime(const FILETIME* a, const FILETIME* b);

}  // namespace qbsmtp::os
