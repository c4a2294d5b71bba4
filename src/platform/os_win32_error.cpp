// os_win32_error.cpp: the thread's last error and Winsock's, and the C
// runtime's record of a failed _beginthreadex.
//
// Winsock keeps its error in the same per-thread slot as GetLastError, so
// the fault seam's SetLastError reaches WSAGetLastError too.
#include "platform/os_win32_native.h"

namespace qbsmtp::os {
namespace {

thread_local DWORD last_doserrno = 0;

}  // namespace

DWORD GetLastError() {
    return static_cast<DWORD>(::GetLastError());
}

void SetLastError(DWORD code) {
    ::SetLastError(code);
}

int WSAGetLastError() {
    return ::WSAGetLastError();
}

void WSASetLastError(int code) {
    ::WSASetLastError(code);
}

DWORD doserrno() {
    return last_doserrno;
}

namespace win32 {

void set_doserrno(DWORD code) {
    last_doserrno = code;
}

}  // namespace win32
}  // namespace qbsmtp::os
