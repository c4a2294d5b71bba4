// session_io.cpp: the buffered input and output of a session.

#include "reception/session_io.h"

#include <cstdarg>

#include "frame/ascii.h"

namespace qbsmtp {

void session_reset_buffers(SmtpSession& session) {
    session.reset_buffers();
    // Larger reads change nothing a peer sees (the dialogue takes bytes
    // one at a time either way) and take a 100 KB message in a dozen
    // calls instead of a hundred.
    session.read_capacity = static_cast<int>(smtp_read_buffer_size);
}

int session_ungetc(int c, SmtpSession& session) {
    return session.unget_byte(c);
}

int session_getc_upper(SmtpSession& session) {
    return ascii_upper(session.get_byte());
}

void session_flush(SmtpSession& session) {
    if (!session.flush()) throw 1;
}

int session_putc(int c, SmtpSession& session) {
    if (!session.put_byte(c)) throw 1;
    return c;
}

int session_printf(SmtpSession& session, const char* format, ...) {
    char text[smtp_buffer_size];
    va_list arguments;
    va_start(arguments, format);
    const int length = format_text(text, format, arguments);
    va_end(arguments);
    if (length < 0 || !session.put_text(text)) throw 1;
    return length;
}

}  // namespace qbsmtp
