// smtp_stream.h: SmtpStream, one end of an SMTP connection: the socket,
// the two 1024-byte buffers with their cursors and counts, byte and line
// I/O, the reply reader and the time-outs. The sessions of the server, the
// sending client and the listener's port probe all talk through it.
//
// Input comes from recv in blocks of up to read_capacity bytes (1024
// unless the owner asks for more); after a read one byte can be pushed
// back. Output collects in the write buffer and leaves
// with one send per flush; a short send is a failure, and nothing is tried
// twice. The stream raises no event and throws nothing: a read gives -1, a
// write false, a reply read its ReplyRead, and each caller turns that into
// its own failure (the thrown 1 of a session, the Exception values of the
// client, the quiet 1 of the probe). The stream never closes its socket:
// whoever opened or accepted it does, after end_tls.
//
// With TLS started (start_tls) the same bytes travel through the channel
// instead of the bare socket; nothing above the stream sees the
// difference.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "platform/os.h"
#include "platform/os_tls.h"

namespace qbsmtp {

inline constexpr std::size_t smtp_buffer_size = 1024;
// The most one recv may bring: a session reads the message text in blocks
// this large (read_capacity); everyone else reads 1024 bytes at a time.
inline constexpr std::size_t smtp_read_buffer_size = 8 * 1024;

// What read_reply found.
enum class ReplyRead {
    complete,        // a whole reply; its code is the last line's
    lost,            // the peer closed, failed or timed out before its end
    unintelligible,  // a line that does not start with three digits and ' ' or '-'
};

class SmtpStream {
  public:
    // The connection. INVALID_SOCKET while none is open: on POSIX 0 is a
    // valid descriptor, so it cannot serve as "none".
    os::SOCKET socket = os::INVALID_SOCKET;
    char* read_cursor = nullptr;   // next unread byte; null until the first read
    char* write_cursor = nullptr;  // next free byte of write_buffer
    int read_count = 0;            // unread bytes behind read_cursor
    int write_room = 0;            // free bytes behind write_cursor
    int read_capacity = static_cast<int>(smtp_buffer_size);  // bytes one recv may bring
    char read_buffer[smtp_read_buffer_size] = {};            // the last block recv delivered
    char write_buffer[smtp_buffer_size] = {};                // bytes waiting for send
    os::TlsChannel* tls = nullptr;  // the TLS channel once started, else null

    SmtpStream() = default;
    SmtpStream(const SmtpStream&) = delete;
    SmtpStream& operator=(const SmtpStream&) = delete;
    ~SmtpStream() { end_tls(false); }

    // Runs the TLS handshake on the socket, as the server or as the client
    // of host_name. Input read before it is dropped, so that nothing sent
    // in plain text counts as sent under TLS (RFC 3207); output must have
    // been flushed. False, with the reason in error, when it failed; the
    // connection is then of no further use.
    bool start_tls(os::TlsContext* context, bool server, const char* host_name, char* error,
                   std::size_t size);
    // Ends TLS, with the close alert when notify is set; before the socket
    // is closed.
    void end_tls(bool notify);

    // Empty buffers: the first read refills, the first write finds 1024 bytes.
    void reset_buffers();

    // Next byte, 0 to 255, or -1 when the peer closed, the connection broke
    // or a time-out expired. Inline: message text passes here byte by byte.
    int get_byte() {
        if (read_count < 1) return refill();
        --read_count;
        return static_cast<unsigned char>(*read_cursor++);
    }
    // Refills the read buffer with one recv; its first byte, or -1.
    int refill();
    // Puts c back in front of the input; c, or -1 if nothing was read yet.
    int unget_byte(int c);

    // Queues c; false when the full buffer could not be sent first.
    bool put_byte(int c) {
        if (write_room < 1 && !flush()) return false;
        --write_room;
        *write_cursor++ = static_cast<char>(c);
        return true;
    }
    // Queues text up to its NUL; false as put_byte.
    bool put_text(const char* text);
    // Sends what waits in one send. False when that failed or went short;
    // WSAGetLastError then tells why (see is_timeout_error).
    bool flush();

    // Reads one reply (after the caller's flush): the code of its last line
    // through code. Only CR LF ends a line. With text, the lines' texts
    // behind their codes are kept there, each ending in LF, as far as size
    // allows (the EHLO keywords); without it, nothing is kept.
    ReplyRead read_reply(int& code, char* text = nullptr, std::size_t size = 0);
};

// Formats into text as vsnprintf does: the length, or -1 when the result
// does not fit in smtp_buffer_size - 1 bytes.
int format_text(char (&text)[smtp_buffer_size], const char* format, std::va_list arguments);

// A send or recv that ran into its time-out; the backend may report either.
bool is_timeout_error(int winsock_error);

// Sets SO_RCVTIMEO and SO_SNDTIMEO of socket to seconds (capped at what a
// DWORD of milliseconds holds): every later recv and send, and on Linux
// connect, waits no longer. False, with the Winsock error kept, if either
// cannot be set.
bool set_socket_timeouts(os::SOCKET socket, std::uint32_t seconds);

}  // namespace qbsmtp
