// local_alloc_posix.cpp: the C exports LocalAlloc, LocalFree and
// LocalSize of the module, with which a POSIX host releases the blocks of
// a MailRecord. They forward to the platform layer.
#include "platform/os.h"
#include "qbsmtp/qbsmtp.h"

extern "C" {

QBSMTP_API void* LocalAlloc(unsigned int flags, size_t bytes) {
    return qbsmtp::os::LocalAlloc(flags, bytes);
}

QBSMTP_API void* LocalFree(void* block) {
    return qbsmtp::os::LocalFree(block);
}

QBSMTP_API size_t LocalSize(void* block) {
    return qbsmtp::os::LocalSize(block);
}

}  // extern "C"
