// smtp_client.cpp: the client's failures on its stream, the reply reader,
// the formatted writer, the five commands and the time-outs.

#include "sending/smtp_client.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
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

}  // namespace

SmtpClient::~SmtpClient() {
    clean_up();
}

void SmtpClient::setup_buffers() {
    current = nullptr;
    reset_buffers();
}

void SmtpClient::clean_up() {
    if (socket != os::INVALID_SOCKET) {
        end_tls(false);
        os::closesocket(socket);
        socket = os::INVALID_SOCKET;
    }
    connected = 0;
    os::tls_free_context(tls_context);
    tls_context = nullptr;
    if (current != nullptr) {
        current->close();
        current = nullptr;
    }
    attachment_count = 0;
    attachments.clear();
}

void fail_send() {
    if (is_timeout_error(os::WSAGetLastError())) fail_lost_connection();
    throw Exception::failed_for_now;
}

void write_flush(SmtpClient& client) {
    if (!client.flush()) fail_send();
}

void write_format(SmtpClient& client, const char* format, ...) {
    char text[client_buffer_size];
    va_list arguments;
    va_start(arguments, format);
    const int length = format_text(text, format, arguments);
    va_end(arguments);
    if (length < 0) throw Exception::failed_for_now;
    log_debug("%s", text);  // log_debug cuts its copy; the wire gets it whole
    for (const char* p = text; *p != '\0'; ++p) client.put_byte(*p);
}

int read_reply(SmtpClient& client, char* text, std::size_t size) {
    write_flush(client);
    int code = 0;
    switch (client.read_reply(code, text, size)) {
        case ReplyRead::complete:
            return code;
        case ReplyRead::lost:
            fail_lost_connection();
        case ReplyRead::unintelligible:
            break;
    }
    fail_unintelligible();
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
