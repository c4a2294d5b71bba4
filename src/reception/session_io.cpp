// session_io.cpp: the buffered input and output of a session.

#include "reception/session_io.h"

#include <cstdarg>
#include <cstdio>

#include "frame/ascii.h"

namespace qbsmtp {

void session_reset_buffers(SmtpSession& session) {
    session.read_count = 0;
    session.read_cursor = nullptr;
    session.write_room = static_cast<std::int32_t>(session_buffer_size);
    session.write_cursor = session.write_buffer;
}

int session_refill(SmtpSession& session) {
    session.read_cursor = session.read_buffer;
    session.read_count = os::recv(session.socket, reinterpret_cast<char*>(session.read_buffer),
                                  static_cast<int>(session_buffer_size), 0);
    // An orderly close and an error (the time-out included) are alike.
    if (session.read_count < 1) {
        session.read_count = 0;
        return -1;
    }
    --session.read_count;
    return *session.read_cursor++;
}

int session_ungetc(int c, SmtpSession& session) {
    if (session.read_cursor == nullptr) return -1;
    ++session.read_count;
    *--session.read_cursor = static_cast<unsigned char>(c);
    return c;
}

int session_getc_upper(SmtpSession& session) {
    return ascii_upper(session_getc(session));
}

void session_flush(SmtpSession& session) {
    const int pending = static_cast<int>(session.write_cursor - session.write_buffer);
    if (pending > 0) {
        // A short send counts as a failure: nothing is tried twice.
        if (os::send(session.socket, reinterpret_cast<const char*>(session.write_buffer), pending,
                     0) != pending)
            throw 1;
    }
    session.write_cursor = session.write_buffer;
    session.write_room = static_cast<std::int32_t>(session_buffer_size);
}

int session_putc(int c, SmtpSession& session) {
    if (session.write_room < 1) session_flush(session);
    *session.write_cursor++ = static_cast<unsigned char>(c);
    --session.write_room;
    return c;
}

int session_printf(SmtpSession& session, const char* format, ...) {
    char text[session_buffer_size];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0 || length >= static_cast<int>(sizeof text)) throw 1;
    for (const char* p = text; *p != '\0'; ++p)
        session_putc(static_cast<unsigned char>(*p), session);
    return length;
}

}  // namespace qbsmtp
