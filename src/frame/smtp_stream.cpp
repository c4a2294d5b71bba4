// smtp_stream.cpp: the buffers, the reply reader and the time-outs of an
// SmtpStream.

#include "frame/smtp_stream.h"

#include <algorithm>
#include <cstdio>

namespace qbsmtp {

void SmtpStream::reset_buffers() {
    read_cursor = nullptr;
    read_count = 0;
    write_cursor = write_buffer;
    write_room = static_cast<int>(smtp_buffer_size);
}

int SmtpStream::refill() {
    read_cursor = read_buffer;
    read_count = tls != nullptr ? os::tls_recv(tls, read_buffer, read_capacity)
                                : os::recv(socket, read_buffer, read_capacity, 0);
    // An orderly close and an error (the time-out included) are alike.
    if (read_count < 1) {
        read_count = 0;
        return -1;
    }
    --read_count;
    return static_cast<unsigned char>(*read_cursor++);
}

bool SmtpStream::start_tls(os::TlsContext* context, bool server, const char* host_name, char* error,
                           std::size_t size) {
    reset_buffers();
    tls = os::tls_start(context, socket, server, host_name, error, size);
    return tls != nullptr;
}

void SmtpStream::end_tls(bool notify) {
    os::tls_end(tls, notify);
    tls = nullptr;
}

int SmtpStream::unget_byte(int c) {
    if (read_cursor == nullptr) return -1;
    ++read_count;
    *--read_cursor = static_cast<char>(c);
    return c;
}

bool SmtpStream::put_text(const char* text) {
    for (const char* p = text; *p != '\0'; ++p) {
        if (!put_byte(static_cast<unsigned char>(*p))) return false;
    }
    return true;
}

bool SmtpStream::flush() {
    const int pending = static_cast<int>(write_cursor - write_buffer);
    if (pending > 0 && (tls != nullptr ? os::tls_send(tls, write_buffer, pending)
                                       : os::send(socket, write_buffer, pending, 0)) != pending)
        return false;
    write_cursor = write_buffer;
    write_room = static_cast<int>(smtp_buffer_size);
    return true;
}

ReplyRead SmtpStream::read_reply(int& code, char* text, std::size_t size) {
    // States: 0..2 the three digits, 3 the separator, 4 the text, 5 after CR.
    int state = 0;
    bool last = false;
    std::size_t kept = 0;
    const auto keep = [&](int c) {
        if (kept + 1 < size) text[kept++] = static_cast<char>(c);
        if (size > 0) text[kept] = '\0';
    };
    if (size > 0) text[0] = '\0';
    code = 0;
    for (;;) {
        const int c = get_byte();
        if (c < 0) return ReplyRead::lost;
        switch (state) {
            case 0:
            case 1:
            case 2:
                if (c < '0' || c > '9') return ReplyRead::unintelligible;
                code = (state == 0 ? 0 : code * 10) + (c - '0');
                ++state;
                break;
            case 3:
                if (c == ' ') {
                    last = true;
                } else if (c == '-') {
                    last = false;
                } else {
                    return ReplyRead::unintelligible;
                }
                state = 4;
                break;
            case 4:
                if (c == '\r') {
                    state = 5;
                } else {
                    keep(c);
                }
                break;
            default:  // 5: only LF right behind CR ends a line
                if (c != '\n') {
                    state = 4;
                    break;
                }
                keep('\n');
                if (last) {
                    return ReplyRead::complete;
                } else {
                    state = 0;
                }
                break;
        }
    }
}

int format_text(char (&text)[smtp_buffer_size], const char* format, std::va_list arguments) {
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof text) return -1;
    return length;
}

bool is_timeout_error(int winsock_error) {
    return winsock_error == os::WSAETIMEDOUT || winsock_error == os::WSAEWOULDBLOCK;
}

bool set_socket_timeouts(os::SOCKET socket, std::uint32_t seconds) {
    const os::DWORD milliseconds =
        static_cast<os::DWORD>(std::min<std::uint64_t>(std::uint64_t{seconds} * 1000, 0xFFFFFFFFu));
    const char* value = reinterpret_cast<const char*>(&milliseconds);
    return os::setsockopt(socket, os::SOL_SOCKET, os::SO_RCVTIMEO, value, sizeof milliseconds) ==
               0 &&
           os::setsockopt(socket, os::SOL_SOCKET, os::SO_SNDTIMEO, value, sizeof milliseconds) == 0;
}

}  // namespace qbsmtp
