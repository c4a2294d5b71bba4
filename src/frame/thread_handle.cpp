// thread_handle.cpp: ThreadHandle, the handle of a started thread.

#include "frame/thread_handle.h"

namespace qbsmtp {

int ThreadHandle::start(os::ThreadEntry entry, void* argument) {
    close();
    unsigned id = 0;
    const std::uintptr_t result = os::_beginthreadex(nullptr, 0, entry, argument, 0, &id);
    thread_id = id;
    if (result == 0 || result == ~std::uintptr_t{0}) {
        os::SetLastError(os::doserrno());
        return 0;
    }
    handle = reinterpret_cast<os::HANDLE>(result);
    return 1;
}

void ThreadHandle::close() {
    if (handle != nullptr) {
        os::CloseHandle(handle);
        handle = nullptr;
    }
}

}  // namespace qbsmtp
