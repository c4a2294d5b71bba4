// os_win32_thread.cpp: _beginthreadex of the C runtime, CloseHandle, Sleep
// and GetTickCount.
//
// The runtime wants a __stdcall entry and our ThreadEntry is a plain C++
// function, so each thread starts in a trampoline that calls the entry
// with its argument. The runtime's _doserrno of a failed start is kept per
// thread for doserrno().
#include <errno.h>
#include <process.h>
#include <stdlib.h>

#include <new>

#include "platform/os_win32_native.h"

namespace qbsmtp::os {
namespace {

struct ThreadStart {
    ThreadEntry entry;
    void* argument;
};

unsigned __stdcall run_thread(void* raw) {
    ThreadStart start = *static_cast<ThreadStart*>(raw);
    delete static_cast<ThreadStart*>(raw);
    return start.entry(start.argument);
}

}  // namespace

std::uintptr_t _beginthreadex(void* security, unsigned stack_size, ThreadEntry entry,
                              void* argument, unsigned flags, unsigned* thread_id) {
    if (fault_hit(Op::BeginThread)) {
        win32::set_doserrno(GetLastError());
        return 0;
    }
    if (entry == nullptr) {
        win32::set_doserrno(ERROR_INVALID_PARAMETER);
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    auto* start = new (std::nothrow) ThreadStart{entry, argument};
    if (start == nullptr) {
        win32::set_doserrno(ERROR_NOT_ENOUGH_MEMORY);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    std::uintptr_t handle =
        ::_beginthreadex(security, stack_size, run_thread, start, flags, thread_id);
    if (handle == 0) {
        win32::set_doserrno(static_cast<DWORD>(_doserrno));
        delete start;
    }
    return handle;
}

BOOL CloseHandle(HANDLE handle) {
    // The seam fails file handles only: a thread's handle always closes.
    DWORD saved = GetLastError();
    bool is_file = ::GetFileType(handle) != FILE_TYPE_UNKNOWN;
    SetLastError(saved);
    if (is_file && fault_hit(Op::CloseHandle)) {
        // A failed close has released the handle all the same.
        const DWORD code = GetLastError();
        ::CloseHandle(handle);
        SetLastError(code);
        return 0;
    }
    return ::CloseHandle(handle);
}

void Sleep(DWORD milliseconds) {
    ::Sleep(milliseconds);
}

DWORD GetTickCount() {
    return ::GetTickCount();
}

}  // namespace qbsmtp::os
