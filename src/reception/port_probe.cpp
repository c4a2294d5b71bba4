// port_probe.cpp: TestSMTP, the port conflict probe of the listener.

#include "reception/port_probe.h"

#include <cstring>
#include <string>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/smtp_stream.h"
#include "frame/text_ops.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {

namespace {

// Bounds every later wait on the probe's socket (connect, recv, send) by
// probe_timeout. A peer that accepts and then stays silent would otherwise
// keep the listener, and so reception, blocked with no event.
void apply_probe_timeout(os::SOCKET socket) {
    if (probe_timeout == 0) return;
    if (!set_socket_timeouts(socket, probe_timeout))
        log_debug("TestSMTP time-out not set: error %d", os::WSAGetLastError());
}

// What the peer's last block left in read_buffer, up to its first NUL and
// never past the buffer.
std::string peer_words(const SmtpStream& stream) {
    const std::size_t length = strnlen(stream.read_buffer, smtp_buffer_size);
    return std::string(stream.read_buffer, length);
}

// Reports that the peer on the port owns it, with its words in quotes.
void report_other_server(const SmtpStream& stream) {
    const std::string words = peer_words(stream);
    event_reporter.report(event::port_owned_by_other_server, "\r\n", "\r\n", words.c_str());
}

// Flushes and reads one reply with the events a sending client raises:
// its code, or -1 once the failure is reported.
int probe_reply(SmtpStream& stream) {
    if (!stream.flush()) {
        if (is_timeout_error(os::WSAGetLastError())) event_reporter.report(event::connection_lost);
        return -1;
    }
    int code = 0;
    switch (stream.read_reply(code)) {
        case ReplyRead::complete:
            return code;
        case ReplyRead::lost:
            event_reporter.report(event::connection_lost);
            return -1;
        case ReplyRead::unintelligible:
            break;
    }
    event_reporter.report(event::reply_unintelligible);
    return -1;
}

// Takes leave as a sending client does, with the same events.
void say_quit(SmtpStream& stream) {
    const char* const quit = "QUIT\r\n";
    log_debug("%s", quit);
    stream.put_text(quit);  // the buffer is empty after the flush of the reply read
    const int code = probe_reply(stream);
    if (code < 0) return;
    char text[16];
    format_unsigned(text, static_cast<std::uint32_t>(code));
    if (code != 221 && code != 421) {
        event_reporter.report(event::quit_failed, text);
        return;
    }
    event_reporter.report_if(QBSMTP_LOG_SEND_SUCCESS, event::send_succeeded, text);
}

}  // namespace

int TestSMTP(const char* host, std::uint16_t port) {
    const os::hostent* entry = os::gethostbyname(host);
    if (entry == nullptr || entry->h_addr_list == nullptr || entry->h_addr_list[0] == nullptr) {
        log_debug("TestSMTP getHostbyName Failed (%x)", static_cast<unsigned>(os::GetLastError()));
        return 1;
    }
    os::sockaddr_in address{};
    address.sin_family = os::AF_INET;
    std::memcpy(&address.sin_addr, entry->h_addr_list[0], sizeof address.sin_addr);
    address.sin_port = port;

    SmtpStream stream;
    stream.reset_buffers();
    stream.socket = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
    if (stream.socket == os::INVALID_SOCKET) return 1;
    apply_probe_timeout(stream.socket);
    log_debug("TestSMTP, socket OK");
    if (os::connect(stream.socket, reinterpret_cast<const os::sockaddr*>(&address),
                    sizeof address) != 0) {
        os::closesocket(stream.socket);
        return 1;
    }
    log_debug("TestSMPT, Connect SMTP port OK");
    // Any well-formed reply is a server, whatever its code. A peer that
    // accepted the connection but gave no well-formed greeting (silent until
    // the time-out, closed at once, or another protocol) is still a live
    // process holding the port: binding beside it would take nothing, so
    // reception gives way and says so.
    const int code = probe_reply(stream);
    report_other_server(stream);
    if (code >= 0) say_quit(stream);
    os::closesocket(stream.socket);
    return 0;
}

}  // namespace qbsmtp
