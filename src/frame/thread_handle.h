// thread_handle.h: ThreadHandle, the handle of a started thread. Closing
// it does not stop the thread.
#pragma once

#include <cstdint>

#include "platform/os.h"

namespace qbsmtp {

class ThreadHandle {
  public:
    os::HANDLE handle = nullptr;  // 0 when none
    std::uint32_t thread_id = 0;

    ThreadHandle() = default;
    ~ThreadHandle() { close(); }
    ThreadHandle(const ThreadHandle&) = delete;
    ThreadHandle& operator=(const ThreadHandle&) = delete;

    // 1, or 0 with the last error set. A stack_size of 0 takes the
    // process's default; another value is the thread's whole stack.
    int start(os::ThreadEntry entry, void* argument, unsigned stack_size = 0);
    void close();
};

}  // namespace qbsmtp
