// smtp_client.cpp: the buffered connection of a SmtpClient, the reply
// reader, the formatted writer, the five commands and the time-outs.

#include "sending/smtp_client.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/socket_timeouts.h"
#include "frame/text_ops.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {

namespace {

[[noreturn]] void fail_lost_connection() {
    event_reporter.report(event::connection_lost);
    throw Exception::failed_for_now;
}

[[noreturn]] void fail_unintelligible() {
    event_reporter.report(event::reply_unintelligible);
    throw Exception::failed_for_good;
}

// A send or recv that ran into its time-out; the backend may report either.
bool is_timeout(int winsock_error) {
    return winsock_error == os::WSAETIMEDOUT || winsock_error == os::WSAEWOULDBLOCK;
}

}  // namespace

SmtpClient::~SmtpClient() {
    clean_up();
}

void SmtpClient::setup_buffers() {
    current = nullptr;
    read_cursor = read_buffer;
    read_count = 0;
    write_room = static_cast<int>(client_buffer_size);
    write_cursor = write_buffer;
}

void SmtpClient::clean_up() {
    if (socket != os::INVALID_SOCKET) {
        os::closesocket(socket);
        socket = os::INVALID_SOCKET;
    }
    connected = 0;
    if (current != nullptr) {
        current->close();
        current = nullptr;
    }
    attachment_count = 0;
    attachments.clear();
}

int read_refill(SmtpClient& client) {
    client.read_cursor = client.read_buffer;
    client.read_count =
        os::recv(client.socket, client.read_buffer, static_cast<int>(client_buffer_size), 0);
    if (client.read_count < 1) {
        // The peer closed, failed or timed out: all the same to the reader.
        client.read_count = 0;
        return -1;
    }
    --client.read_count;
    return static_cast<unsigned char>(*client.read_cursor++);
}

void write_flush(SmtpClient& client) {
    const int pending = static_cast<int>(client.write_cursor - client.write_buffer);
    if (pending > 0 && os::send(client.socket, client.write_buffer, pending, 0) != pending) {
        // A relay that stopped reading counts as lost; other send failures
        // carry no event of their own.
        if (is_timeout(os::WSAGetLastError())) fail_lost_connection();
        throw Exception::failed_for_now;
    }
    client.write_cursor = client.write_buffer;
    client.write_room = static_cast<int>(client_buffer_size);
}

void write_byte(int c, SmtpClient& client) {
    write_flush(client);
    client.put_byte(c);
}

void write_format(SmtpClient& client, const char* format, ...) {
    char text[client_buffer_size];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof text) {
        throw Exception::failed_for_now;
    }
    log_debug("%s", text);  // log_debug cuts its copy; the wire gets it whole
    for (const char* p = text; *p != '\0'; ++p) client.put_byte(*p);
}

int read_reply(SmtpClient& client) {
    write_flush(client);

    // States: 0..2 the three digits, 3 the separator, 4 the text, 5 after CR.
    int state = 0;
    int code = 0;
    bool last = false;
    for (;;) {
        const int c = client.read_byte();
        if (c < 0) fail_lost_connection();
        switch (state) {
            case 0:
            case 1:
            case 2:
                if (c < '0' || c > '9') fail_unintelligible();
                code = (state == 0 ? 0 : code * 10) + (c - '0');
                ++state;
                break;
            case 3:
                if (c == ' ') {
                    last = true;
                } else if (c == '-') {
                    last = false;
                } else {
                    fail_unintelligible();
                }
                state = 4;
                break;
            case 4:
                if (c == '\r') state = 5;
                break;
            default:  // 5: only LF right behind CR ends a line
                if (c != '\n') {
                    state = 4;
                } else if (last) {
                    return code;
                } else {
                    state = 0;
                }
                break;
        }
    }
}

void report_unexpected_reply(int code) {
    char text[16];
    event_reporter.report(event::unexpected_reply,
                          format_unsigned(text, static_cast<std::uint32_t>(code)));
}

char* format_dotted_quad(char* buffer, const os::in_addr& address) {
    unsigned char bytes[4];
    std::memcpy(bytes, &address.s_addr, sizeof bytes);  // network order: first byte first
    std::snprintf(buffer, 16, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
    return buffer;
}

namespace {

// Reads the reply to the command just written; an unaccepted code raises
// 0xC0004EF4 and ends the conversation for now.
void expect_reply(SmtpClient& client, int accepted, int also_accepted = 0) {
    const int code = read_reply(client);
    if (code == accepted || (also_accepted != 0 && code == also_accepted)) return;
    report_unexpected_reply(code);
    throw Exception::failed_for_now;
}

}  // namespace

void issue_helo(SmtpClient& client) {
    write_format(client, "HELO %s\r\n", host_name.c_str());
    expect_reply(client, 250);
}

void issue_mail(SmtpClient& client, const char* reverse_path) {
    write_format(client, "MAIL FROM:<%s>\r\n", reverse_path);
    expect_reply(client, 250);
}

void issue_rcpt(SmtpClient& client, const char* forward_path) {
    write_format(client, "RCPT TO:<%s>\r\n", forward_path);
    expect_reply(client, 250, 251);
}

void issue_data(SmtpClient& client) {
    write_format(client, "DATA\r\n");
    expect_reply(client, 354);
}

void issue_quit(SmtpClient& client) {
    write_format(client, "QUIT\r\n");
    const int code = read_reply(client);
    char text[16];
    format_unsigned(text, static_cast<std::uint32_t>(code));
    if (code != 221 && code != 421) {
        event_reporter.report(event::quit_failed, text);
        throw Exception::failed_for_now;
    }
    event_reporter.report_if(QBSMTP_LOG_SEND_SUCCESS, event::send_succeeded, text);
}

namespace {

struct PhaseLimit {
    Phase phase;
    std::uint32_t seconds;
};

// RFC 5321 section 4.5.3.2; HELO and QUIT wait as long as MAIL does.
constexpr PhaseLimit phase_limits[] = {
    {Phase::connect, 2 * 60},    {Phase::greeting, 5 * 60},
    {Phase::command, 5 * 60},    {Phase::data_initiation, 2 * 60},
    {Phase::data_block, 3 * 60}, {Phase::data_termination, 10 * 60},
};

}  // namespace

std::uint32_t phase_timeout(Phase phase) {
    if (send_timeout != 0) return send_timeout;
    for (const PhaseLimit& limit : phase_limits) {
        if (limit.phase == phase) return limit.seconds;
    }
    return 5 * 60;
}

void set_phase_timeout(SmtpClient& client, Phase phase) {
    if (!set_socket_timeouts(client.socket, phase_timeout(phase))) {
        char text[200];
        event_reporter.report(event::setsockopt_failed, winsock_error_text(text, sizeof text));
        throw Exception::failed_for_now;
    }
}

}  // namespace qbsmtp
