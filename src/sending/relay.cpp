// relay.cpp: send_init and send_record, the work behind SMTPSendInit and
// SMTPSend.
//
// SMTPSend runs the whole conversation inside one try block. Every end,
// the good one too, is a thrown Exception; the one catch closes what is
// open and turns the value into the result and temporary_failure.

#include "sending/relay.h"

#include <cstdio>
#include <cstring>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/text_ops.h"
#include "qbsmtp/qbsmtp.h"
#include "sending/message_composition.h"
#include "sending/relay_security.h"
#include "sending/smtp_client.h"

namespace qbsmtp {

os::sockaddr_in relay_address{};
char relay_name[relay_name_size] = {};

int send_init(const char* relay_host) {
    if (smtp_service == nullptr) {
        os::SetLastError(os::ERROR_INVALID_FUNCTION);
        return 0;
    }
    os::hostent* host = relay_host != nullptr ? os::gethostbyname(relay_host) : nullptr;
    if (relay_host == nullptr) os::WSASetLastError(os::WSAEFAULT);
    if (host != nullptr &&
        (host->h_addr_list == nullptr || host->h_addr_list[0] == nullptr || host->h_length != 4)) {
        host = nullptr;  // no IPv4 address to take
        os::WSASetLastError(os::WSANO_DATA);
    }
    if (host == nullptr) {
        char text[200];
        return event_reporter.report(event::relay_address_unknown, relay_host,
                                     winsock_error_text(text, sizeof text));
    }
    os::sockaddr_in address{};
    address.sin_family = os::AF_INET;
    std::memcpy(&address.sin_addr, host->h_addr_list[0], 4);
    address.sin_port = relay_port != 0
                           ? os::htons(static_cast<std::uint16_t>(relay_port))
                           : static_cast<std::uint16_t>(smtp_service->s_port);  // network order
    relay_address = address;
    std::snprintf(relay_name, sizeof relay_name, "%s", relay_host);
    log_debug("Connecting to %s <%s>", relay_host, host->h_name != nullptr ? host->h_name : "");
    return 1;
}

namespace {

// A message body leaves in full 1024-byte blocks and then a short last
// one with the end marker. Under Nagle's algorithm that last block waits
// for the ACK of the one before, which the relay delays (40 ms on Linux)
// because it has nothing to answer yet: one such wait per message. The
// bytes sent are the same either way, so a refusal changes nothing else.
void send_without_delay(SmtpClient& client) {
    const os::DWORD on = 1;
    os::setsockopt(client.socket, os::IPPROTO_TCP, os::TCP_NODELAY,
                   reinterpret_cast<const char*>(&on), sizeof on);
}

// Runs the conversation; always ends in a throw.
[[noreturn]] void converse(const MailRecord& record, SmtpClient& client) {
    if (!prepare_message(record, client)) throw Exception::failed_for_good;
    client.setup_buffers();

    client.socket = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
    if (client.socket == os::INVALID_SOCKET) {
        char text[200];
        event_reporter.report(event::socket_failed, winsock_error_text(text, sizeof text));
        throw Exception::failed_for_now;
    }
    set_phase_timeout(client, Phase::connect);  // SO_SNDTIMEO bounds connect on Linux
    if (os::connect(client.socket, reinterpret_cast<const os::sockaddr*>(&relay_address),
                    sizeof relay_address) != 0) {
        char address[16];
        char text[200];
        winsock_error_text(text, sizeof text);
        event_reporter.report(event::connect_failed,
                              format_dotted_quad(address, relay_address.sin_addr), text);
        throw Exception::failed_for_now;
    }
    client.connected = 1;
    send_without_delay(client);
    if (relay_security != 0) open_relay_security(client, relay_name);

    set_phase_timeout(client, Phase::greeting);
    const int code = read_reply(client);
    if (code != 220) {
        report_unexpected_reply(code);
        throw Exception::failed_for_now;
    }
    log_debug("Successfully connected!");
    set_phase_timeout(client, Phase::command);
    if (relay_security == 0) {
        issue_helo(client);
    } else {
        greet_relay(client, relay_name);
    }

    send_mail(client);

    if (client.connected) {
        set_phase_timeout(client, Phase::command);
        issue_quit(client);
    }
    throw Exception::delivered;
}

}  // namespace

int send_record(MailRecord* record) {
    if (record == nullptr) {
        os::SetLastError(os::ERROR_INVALID_PARAMETER);
        return 0;
    }
    Exception outcome = Exception::failed_for_now;
    {
        SmtpClient client;
        try {
            converse(*record, client);
        } catch (Exception thrown) {
            outcome = thrown;
        } catch (...) {
            // Nothing of ours throws anything else; never let it reach the host.
            event_reporter.report(event::internal_inconsistency, "SMTPSend");
        }
        client.clean_up();
    }
    record->temporary_failure = outcome == Exception::failed_for_now ? 1 : 0;
    return outcome == Exception::delivered ? 1 : 0;
}

}  // namespace qbsmtp
