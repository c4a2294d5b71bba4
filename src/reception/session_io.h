// session_io.h: buffered byte input and output on one SmtpSession, the
// server's face of its SmtpStream.
//
// A failed or short send throws the integer 1, which session_thread
// catches; so does a reply that does not fit 1024 bytes.
#pragma once

#include "reception/smtp_session.h"

namespace qbsmtp {

// Sets up empty buffers; session_thread runs it before the dialogue.
void session_reset_buffers(SmtpSession& session);
// Next byte, 0 to 255, or -1 when the peer closed, the connection broke
// or the session time-out expired. Inline: message text passes here byte
// by byte.
inline int session_getc(SmtpSession& session) {
    return session.get_byte();
}
// Puts c back in front of the input; c, or -1 if nothing was read yet.
int session_ungetc(int c, SmtpSession& session);
// As session_getc, with the 26 ASCII lower-case letters folded to upper.
int session_getc_upper(SmtpSession& session);
int session_putc(int c, SmtpSession& session);
void session_flush(SmtpSession& session);
// Formats into a 1024-byte buffer and queues the text; nothing is sent
// until session_flush. Result: the number of characters.
int session_printf(SmtpSession& session, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace qbsmtp
