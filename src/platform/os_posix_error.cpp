// os_posix_error.cpp: the thread's last error, and the one table that turns
// errno values into Win32 and Winsock codes.
//
// As on Windows, GetLastError and WSAGetLastError share one per-thread
// slot. A code without a row in the table maps to ERROR_INVALID_FUNCTION
// and WSAEINVAL respectively; the native code is not kept, which is what a
// Win32 caller would see too.
#include <errno.h>
#include <sys/stat.h>

#include <string>

#include "platform/os.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace {

thread_local DWORD last_error = 0;
thread_local DWORD last_doserrno = 0;

struct ErrnoCodes {
    int error_number;
    DWORD win32;  // as a file or system call reports it
    int winsock;  // as a socket call reports it
};

// Rows are searched from the top.
constexpr ErrnoCodes errno_table[] = {
    {EPERM, ERROR_ACCESS_DENIED, WSAEACCES},
    {ENOENT, ERROR_FILE_NOT_FOUND, WSAEINVAL},
    {EINTR, 104 /* ERROR_INVALID_AT_INTERRUPT_TIME */, WSAEINTR},
    {EIO, 31 /* ERROR_GEN_FAILURE */, WSAENETDOWN},
    {EBADF, ERROR_INVALID_HANDLE, WSAENOTSOCK},
    {EAGAIN, ERROR_NOT_ENOUGH_MEMORY, WSAETIMEDOUT},  // a blocking socket only times out
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY, WSAENOBUFS},
    {EACCES, ERROR_ACCESS_DENIED, WSAEACCES},
    {EFAULT, 487 /* ERROR_INVALID_ADDRESS */, WSAEFAULT},
    {EBUSY, 32 /* ERROR_SHARING_VIOLATION */, WSAEINVAL},
    {EEXIST, ERROR_FILE_EXISTS, WSAEADDRINUSE},
    {EXDEV, 17 /* ERROR_NOT_SAME_DEVICE */, WSAEINVAL},
    {ENOTDIR, ERROR_PATH_NOT_FOUND, WSAEINVAL},
    {EISDIR, ERROR_ACCESS_DENIED, WSAEINVAL},
    {EINVAL, ERROR_INVALID_PARAMETER, WSAEINVAL},
    {ENFILE, 4 /* ERROR_TOO_MANY_OPEN_FILES */, WSAEMFILE},
    {EMFILE, 4 /* ERROR_TOO_MANY_OPEN_FILES */, WSAEMFILE},
    {EFBIG, 223 /* ERROR_FILE_TOO_LARGE */, WSAEINVAL},
    {ENOSPC, ERROR_DISK_FULL, WSAENOBUFS},
    {EDQUOT, ERROR_DISK_FULL, WSAENOBUFS},
    {EROFS, 19 /* ERROR_WRITE_PROTECT */, WSAEACCES},
    {EPIPE, 109 /* ERROR_BROKEN_PIPE */, WSAECONNRESET},  // the peer is gone
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE, WSAEFAULT},
    {ELOOP, 1921 /* ERROR_CANT_RESOLVE_FILENAME */, WSAEINVAL},
    {ENOTEMPTY, 145 /* ERROR_DIR_NOT_EMPTY */, WSAEINVAL},
    {ENOTSOCK, ERROR_INVALID_HANDLE, WSAENOTSOCK},
    {EAFNOSUPPORT, ERROR_INVALID_PARAMETER, WSAEAFNOSUPPORT},
    {EADDRINUSE, ERROR_INVALID_PARAMETER, WSAEADDRINUSE},
    {EADDRNOTAVAIL, ERROR_INVALID_PARAMETER, WSAEADDRNOTAVAIL},
    {ENETDOWN, ERROR_INVALID_PARAMETER, WSAENETDOWN},
    {ENETUNREACH, ERROR_INVALID_PARAMETER, WSAENETUNREACH},
    {ECONNABORTED, ERROR_INVALID_PARAMETER, WSAECONNABORTED},
    {ECONNRESET, ERROR_INVALID_PARAMETER, WSAECONNRESET},
    {ENOBUFS, ERROR_NOT_ENOUGH_MEMORY, WSAENOBUFS},
    {ENOTCONN, ERROR_INVALID_PARAMETER, WSAENOTCONN},
    {ETIMEDOUT, 1460 /* ERROR_TIMEOUT */, WSAETIMEDOUT},
    {ECONNREFUSED, ERROR_INVALID_PARAMETER, WSAECONNREFUSED},
    {EISCONN, ERROR_INVALID_PARAMETER, WSAEISCONN},
    {EOPNOTSUPP, ERROR_INVALID_FUNCTION, WSAEOPNOTSUPP},
    {ENOPROTOOPT, ERROR_INVALID_PARAMETER, WSAENOPROTOOPT},
    {EHOSTUNREACH, ERROR_INVALID_PARAMETER, WSAEHOSTUNREACH},
    {EINPROGRESS, ERROR_INVALID_PARAMETER, WSAETIMEDOUT},  // connect() bounded by SO_SNDTIMEO
};

const ErrnoCodes* row_of(int error_number) {
    for (const ErrnoCodes& row : errno_table) {
        if (row.error_number == error_number) return &row;
    }
    return nullptr;
}

// True when the directory that would hold path exists.
bool parent_directory_exists(const char* path) {
    std::string parent(path);
    while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
    std::size_t slash = parent.rfind('/');
    if (slash == std::string::npos) return true;  // the current directory
    parent.resize(slash == 0 ? 1 : slash);
    struct stat status;
    return ::stat(parent.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

DWORD GetLastError() {
    return last_error;
}
void SetLastError(DWORD code) {
    last_error = code;
}
int WSAGetLastError() {
    return static_cast<int>(last_error);
}
void WSASetLastError(int code) {
    last_error = static_cast<DWORD>(code);
}
DWORD doserrno() {
    return last_doserrno;
}

namespace posix {

DWORD win32_from_errno(int error_number) {
    const ErrnoCodes* row = row_of(error_number);
    return row != nullptr ? row->win32 : ERROR_INVALID_FUNCTION;
}

int winsock_from_errno(int error_number) {
    const ErrnoCodes* row = row_of(error_number);
    return row != nullptr ? row->winsock : WSAEINVAL;
}

void set_file_error(int error_number, const char* path) {
    if (error_number == ENOENT && path != nullptr && !parent_directory_exists(path)) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return;
    }
    SetLastError(win32_from_errno(error_number));
}

void set_doserrno(DWORD code) {
    last_doserrno = code;
}

}  // namespace posix
}  // namespace qbsmtp::os
