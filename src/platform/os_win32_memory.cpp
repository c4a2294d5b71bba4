// os_win32_memory.cpp: LocalAlloc, LocalFree and LocalSize, the process
// heap's local-memory functions, which the host also uses to release the
// blocks of a MailRecord.
#include "platform/os_win32_native.h"

namespace qbsmtp::os {

void* LocalAlloc(UINT flags, std::size_t bytes) {
    if (fault_hit(Op::LocalAlloc)) return nullptr;
    return ::LocalAlloc(flags, bytes);
}

void* LocalFree(void* block) {
    return ::LocalFree(block);
}

std::size_t LocalSize(void* block) {
    return ::LocalSize(block);
}

}  // namespace qbsmtp::os
