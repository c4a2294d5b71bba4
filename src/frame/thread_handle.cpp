// thread_handle.cpp: ThreadHandle, the handle of a started thread.

#include "frame/thread_handle.h"

namespace qbsmtp {

int ThreadHandle::start(os::ThreadEntry entry, void* argument, unsigned stack_size) {
    close();
    unsigned id = 0;
    const unsigned flags = stack_size != 0 ? os::STACK_SIZE_PARAM_IS_A_RESERVATION : 0;
    const std::uintptr_t result =
        os::_beginthreadex(nullptr, stack_size, entry, argument, flags, &id);
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
