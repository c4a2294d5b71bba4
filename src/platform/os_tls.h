// os_tls.h: TLS on a connected socket, for the one SMTP stream.
//
// A context holds the settings of one side (certificates, trust, checks)
// and is shared by the channels made from it; a channel is one TLS
// connection on a socket that its caller keeps owning and closes. Records
// travel through the platform's own recv and send, so the socket's
// time-outs bound the handshake and every later read and write, and a
// closed peer never raises SIGPIPE. Failures give null or -1 and a short
// English text of the reason (never a secret); nothing here reports an
// event. On POSIX the backend is OpenSSL 3; the Windows build has none yet
// and says so (tls_supported false, every context null).
#pragma once

#include <cstddef>

#include "platform/os_types.h"

namespace qbsmtp::os {

struct TlsContext;
struct TlsChannel;

bool tls_supported();

// The client side: the system's trusted roots plus ca_file (null or empty:
// none). verify: the peer's certificate must chain to a trusted root and
// match the host name given to tls_start; false checks nothing.
TlsContext* tls_client_context(const char* ca_file, bool verify, char* error, std::size_t size);
// The server side: a PEM certificate (chain) and its PEM private key,
// which must match.
TlsContext* tls_server_context(const char* certificate_file, const char* key_file, char* error,
                               std::size_t size);
void tls_free_context(TlsContext* context);

// Runs the handshake on socket, as the server or as the client of
// host_name. Null, with the reason in error, when it fails.
TlsChannel* tls_start(TlsContext* context, SOCKET socket, bool server, const char* host_name,
                      char* error, std::size_t size);
// As recv: bytes read, 0 at the peer's close, SOCKET_ERROR with the
// Winsock error kept (a time-out is WSAETIMEDOUT).
int tls_recv(TlsChannel* channel, char* buffer, int length);
// As the platform's send: every byte or SOCKET_ERROR.
int tls_send(TlsChannel* channel, const char* buffer, int length);
// Frees the channel; notify first sends the close alert (best effort).
// The socket stays open.
void tls_end(TlsChannel* channel, bool notify);

}  // namespace qbsmtp::os
