// port_probe.cpp: TestSMTP, the port conflict probe of the listener.

#include "reception/port_probe.h"

#include <cstring>
#include <string>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/socket_timeouts.h"
#include "frame/text_ops.h"
#include "sending/smtp_client.h"

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
std::string peer_words(const SmtpClient& client) {
    const std::size_t length = strnlen(client.read_buffer, sizeof client.read_buffer);
    return std::string(client.read_buffer, length);
}

// Reports that the peer on the port owns it, with its words in quotes.
void report_other_server(const SmtpClient& client) {
    const std::string words = peer_words(client);
    event_reporter.report(event::port_owned_by_other_server, "\r\n", "\r\n", words.c_str());
}

}  // namespace

int TestSMTP(const char* host, std::uint16_t port) {
    int result = 1;
    const os::hostent* entry = os::gethostbyname(host);
    if (entry == nullptr || entry->h_addr_list == nullptr || entry->h_addr_list[0] == nullptr) {
        log_debug("TestSMTP getHostbyName Failed (%x)", static_cast<unsigned>(os::GetLastError()));
        return 1;
    }
    os::sockaddr_in address{};
    address.sin_family = os::AF_INET;
    std::memcpy(&address.sin_addr, entry->h_addr_list[0], sizeof address.sin_addr);
    address.sin_port = port;

    SmtpClient client;
    client.setup_buffers();
    client.socket = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
    if (client.socket == os::INVALID_SOCKET) return 1;
    apply_probe_timeout(client.socket);
    log_debug("TestSMTP, socket OK");
    if (os::connect(client.socket, reinterpret_cast<const os::sockaddr*>(&address),
                    sizeof address) != 0) {
        return 1;  // the client's clean-up closes the socket
    }
    log_debug("TestSMPT, Connect SMTP port OK");
    client.connected = 1;
    try {
        read_reply(client);  // any well-formed reply is a server, whatever its code
        report_other_server(client);
        result = 0;
        issue_quit(client);
    } catch (...) {
        // read_reply and issue_quit have raised their own events. A peer that
        // accepted the connection but gave no well-formed greeting (silent
        // until the time-out, closed at once, or another protocol) is still
        // a live process holding the port: binding beside it would take
        // nothing, so reception gives way and says so.
        if (result != 0) {
            report_other_server(client);
            result = 0;
        }
    }
    client.clean_up();
    return result;
}

}  // namespace qbsmtp
