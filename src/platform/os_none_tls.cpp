// os_none_tls.cpp: the TLS layer of a build without a TLS library (the
// Windows build for now, a 32-bit Linux build without 32-bit OpenSSL).
// Every context is refused with a reason, so a setting that asks for TLS
// fails where it is used and never falls back to plain text.

#include <cstdio>

#include "platform/os_tls.h"

namespace qbsmtp::os {

namespace {

TlsContext* refuse(char* error, std::size_t size) {
    if (size > 0) std::snprintf(error, size, "TLS is not part of this build");
    return nullptr;
}

}  // namespace

bool tls_supported() {
    return false;
}

TlsContext* tls_client_context(const char*, bool, char* error, std::size_t size) {
    return refuse(error, size);
}

TlsContext* tls_server_context(const char*, const char*, char* error, std::size_t size) {
    return refuse(error, size);
}

void tls_free_context(TlsContext*) {}

TlsChannel* tls_start(TlsContext*, SOCKET, bool, const char*, char* error, std::size_t size) {
    refuse(error, size);
    return nullptr;
}

int tls_recv(TlsChannel*, char*, int) {
    return SOCKET_ERROR;
}

int tls_send(TlsChannel*, const char*, int) {
    return SOCKET_ERROR;
}

void tls_end(TlsChannel*, bool) {}

}  // namespace qbsmtp::os
