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

    // 1, or 0 with the last error set.
    int start(os::ThreadEntry entry, void* argument);
    void close();
};

}  // namespace qbsmtp
