// os_posix_thread.cpp: _beginthreadex over detached pthreads, and the
// small services of time that threads use: Sleep and GetTickCount.
//
// The handle is an object of its own, not tied to the thread's life: the
// thread may run and end before _beginthreadex returns, and CloseHandle
// frees only the object. Thread ids are drawn from a process-wide counter,
// so each is unique and known before the thread runs.
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace {

constexpr std::size_t minimum_stack = 256 * 1024;
constexpr unsigned CREATE_SUSPENDED = 4;

struct ThreadObject : posix::HandleObject {
    unsigned id;  // the identifier _beginthreadex gave out
};

struct ThreadStart {
    ThreadEntry entry;
    void* argument;
};

std::atomic<unsigned> next_thread_id{1};

void* run_thread(void* raw) {
    ThreadStart start = *static_cast<ThreadStart*>(raw);
    delete static_cast<ThreadStart*>(raw);
    start.entry(start.argument);
    return nullptr;
}

std::uintptr_t fail_begin(DWORD code) {
    posix::set_doserrno(code);
    SetLastError(code);
    return 0;
}

}  // namespace

std::uintptr_t _beginthreadex(void* /*security*/, unsigned stack_size, ThreadEntry entry,
                              void* argument, unsigned flags, unsigned* thread_id) {
    if (fault_hit(Op::BeginThread)) {
        posix::set_doserrno(GetLastError());
        return 0;
    }
    if (entry == nullptr || (flags & CREATE_SUSPENDED) != 0)
        return fail_begin(ERROR_INVALID_PARAMETER);

    auto* handle = new (std::nothrow) ThreadObject;
    auto* start = new (std::nothrow) ThreadStart{entry, argument};
    if (handle == nullptr || start == nullptr) {
        delete handle;
        delete start;
        return fail_begin(ERROR_NOT_ENOUGH_MEMORY);
    }
    handle->kind = posix::HandleKind::thread;
    handle->id = next_thread_id.fetch_add(1, std::memory_order_relaxed);
    if (handle->id == 0) handle->id = next_thread_id.fetch_add(1, std::memory_order_relaxed);

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (stack_size != 0) {
        std::size_t size = stack_size < minimum_stack ? minimum_stack : stack_size;
        if (size < static_cast<std::size_t>(PTHREAD_STACK_MIN)) size = PTHREAD_STACK_MIN;
        pthread_attr_setstacksize(&attributes, size);
    }
    pthread_t thread;
    int result = pthread_create(&thread, &attributes, run_thread, start);
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        delete start;
        delete handle;
        return fail_begin(posix::win32_from_errno(result));
    }
    if (thread_id != nullptr) *thread_id = handle->id;
    posix::register_handle(handle);
    return reinterpret_cast<std::uintptr_t>(static_cast<posix::HandleObject*>(handle));
}

namespace posix {

BOOL close_thread_handle(HANDLE handle) {
    HandleObject* object = take_handle(handle, HandleKind::thread);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    delete static_cast<ThreadObject*>(object);
    return 1;
}

}  // namespace posix

void Sleep(DWORD milliseconds) {
    timespec remaining{static_cast<time_t>(milliseconds / 1000),
                       static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

DWORD GetTickCount() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    auto milliseconds = static_cast<std::uint64_t>(now.tv_sec) * 1000u +
                        static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<DWORD>(milliseconds);  // wraps at 2^32, as on Windows
}

}  // namespace qbsmtp::os
