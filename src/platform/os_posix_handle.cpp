// os_posix_handle.cpp: the set of live handles, and CloseHandle.
//
// Every handle object the backend gives out is registered here until it is
// closed. A handle that is not in the set (closed twice, never opened, of
// another kind) fails with ERROR_INVALID_HANDLE and touches no memory.
#include <mutex>
#include <unordered_set>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace posix {
namespace {

std::mutex handles_lock;

std::unordered_set<HandleObject*>& live_handles() {
    // Never destroyed: handles may be closed from threads that outlive
    // static destruction.
    static auto* handles = new std::unordered_set<HandleObject*>;
    return *handles;
}

HandleObject* find_live(HANDLE handle) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return nullptr;
    auto* object = static_cast<HandleObject*>(handle);
    return live_handles().count(object) != 0 ? object : nullptr;
}

}  // namespace

void register_handle(HandleObject* object) {
    std::lock_guard lock(handles_lock);
    live_handles().insert(object);
}

HandleObject* handle_of(HANDLE handle, HandleKind kind) {
    std::lock_guard lock(handles_lock);
    HandleObject* object = find_live(handle);
    return object != nullptr && object->kind == kind ? object : nullptr;
}

HandleObject* take_handle(HANDLE handle, HandleKind kind) {
    std::lock_guard lock(handles_lock);
    HandleObject* object = find_live(handle);
    if (object == nullptr || object->kind != kind) return nullptr;
    live_handles().erase(object);
    return object;
}

}  // namespace posix

BOOL CloseHandle(HANDLE handle) {
    using posix::HandleKind;
    if (posix::handle_of(handle, HandleKind::file) != nullptr) {
        if (fault_hit(Op::CloseHandle)) {
            // A close that fails has released the handle all the same
            // (close(2) always frees the descriptor), so a test of the
            // failure leaks nothing.
            const DWORD code = GetLastError();
            posix::close_file_handle(handle);
            SetLastError(code);
            return 0;
        }
        return posix::close_file_handle(handle);
    }
    if (posix::handle_of(handle, HandleKind::thread) != nullptr) {
        return posix::close_thread_handle(handle);
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
}

}  // namespace qbsmtp::os
