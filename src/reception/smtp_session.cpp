// smtp_session.cpp: allocation of a session record.

#include "reception/smtp_session.h"

#include <new>

namespace qbsmtp {

constinit std::atomic<int> sessions_running{0};

SmtpSession* make_session() {
    void* block = os::LocalAlloc(os::LMEM_FIXED, sizeof(SmtpSession));
    if (block == nullptr) return nullptr;
    return new (block) SmtpSession;
}

void free_session(SmtpSession* session) {
    session->~SmtpSession();
    os::LocalFree(session);
}

}  // namespace qbsmtp
