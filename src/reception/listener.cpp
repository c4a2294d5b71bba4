// listener.cpp: smtp_listen, the accept loop, and session_thread.

#include "reception/listener.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/smtp_stream.h"
#include "frame/text_ops.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/port_probe.h"
#include "reception/session_dialogue.h"
#include "reception/session_io.h"
#include "reception/smtp_session.h"

namespace qbsmtp {

namespace {

constexpr std::size_t error_text_size = 200;

// A session's stack. Every reception test and script passes with 32 KB
// (release build), so this leaves room for the TLS handshake and the
// sanitizers. The default would be 1 MB on Windows
// and 8 MB on Linux of address space per held connection, which on
// 32-bit Windows caps the sessions at about 2,000.
constexpr unsigned session_stack_size = 256 * 1024;

// Closes the listening socket, then reports id with the text of the
// Winsock error that made it necessary. The code is kept across the
// close, which could otherwise replace it.
int close_and_report(os::SOCKET socket, std::uint32_t id) {
    const int code = os::WSAGetLastError();
    os::closesocket(socket);
    os::WSASetLastError(code);
    char text[error_text_size];
    return event_reporter.report(id, winsock_error_text(text, sizeof text));
}

// The listen queue: the system's longest unless the settings name a length.
// A short queue overflows when many clients connect at once, and on Linux
// each dropped attempt costs its client a retransmission (1 s, then 3 s).
int queue_length() {
    if (listen_backlog == 0) return os::listen_queue_maximum;
    return static_cast<int>(std::min<std::uint32_t>(listen_backlog, os::listen_queue_maximum));
}

// Clears listener_running on every way out of the listener thread.
struct ListenerRunning {
    ListenerRunning() = default;
    ListenerRunning(const ListenerRunning&) = delete;
    ListenerRunning& operator=(const ListenerRunning&) = delete;
    ~ListenerRunning() { listener_running.store(0); }
};

int set_reuse_address(os::SOCKET socket) {
    const int one = 1;
    return os::setsockopt(socket, os::SOL_SOCKET, os::SO_REUSEADDR,
                          reinterpret_cast<const char*>(&one), sizeof one);
}

// Opens the port: 1 with the socket listening, 0 when the thread is to end
// (reported, socket closed). Where the platform wants it, SO_REUSEADDR comes
// before the first bind, so that the TIME_WAIT ends of a stopped gateway's
// last connections don't keep its successor off the port; a port on which
// another server listens still refuses the bind.
int open_port(os::SOCKET socket) {
    os::sockaddr_in address{};
    address.sin_family = os::AF_INET;
    address.sin_addr.s_addr = os::INADDR_ANY;
    address.sin_port = static_cast<std::uint16_t>(smtp_service->s_port);
    const auto* name = reinterpret_cast<const os::sockaddr*>(&address);
    log_debug("Starting SMTP listen");
    if (os::reuse_address_before_bind && set_reuse_address(socket) < 0)
        return close_and_report(socket, event::setsockopt_failed);
    if (os::bind(socket, name, sizeof address) < 0) {
        const int code = os::WSAGetLastError();
        if (code != os::WSAEADDRINUSE && code != os::WSAEADDRNOTAVAIL)
            return close_and_report(socket, event::bind_failed);
        // The port is taken: by another server, or only held by the system.
        event_reporter.report(event::port_in_use);
        if (TestSMTP("localhost", address.sin_port) == 0) {
            os::closesocket(socket);  // the probe has said who answered
            return 0;
        }
        const int result = set_reuse_address(socket);
        if (result < 0) return close_and_report(socket, event::setsockopt_failed);
        log_debug("setSocktOpt returned %x", static_cast<unsigned>(result));
        if (os::bind(socket, name, sizeof address) < 0)
            return close_and_report(socket, event::bind_failed);
    }
    if (os::listen(socket, queue_length()) < 0)
        return close_and_report(socket, event::listen_failed);
    return 1;
}

// Turns a connection away with its one reply, then closes it. The reply is
// short and the socket new, so the send does not wait on the peer.
void turn_away(os::SOCKET connection, const char* format) {
    char text[smtp_buffer_size];
    const int length = std::snprintf(text, sizeof text, format, host_name.c_str());
    if (length > 0 && static_cast<std::size_t>(length) < sizeof text) {
        apply_session_timeout(connection);
        os::send(connection, text, length, 0);
    }
    os::shutdown(connection, os::SD_SEND);
    os::closesocket(connection);
}

// AllowedClients and MaxSessions: true when the connection was turned away.
bool refused_by_limits(os::SOCKET connection, const os::sockaddr_in& peer) {
    char address[16];
    std::uint32_t host_order = 0;
    format_ipv4(peer.sin_addr.s_addr, address, &host_order);
    if (!allowed_clients.allows(host_order)) {
        event_reporter.report(event::client_refused, address);
        turn_away(connection, "554 %s Access denied\r\n");
        return true;
    }
    if (max_sessions != 0 && static_cast<std::uint32_t>(sessions_running.load()) >= max_sessions) {
        char limit[16];
        std::snprintf(limit, sizeof limit, "%lu", static_cast<unsigned long>(max_sessions));
        event_reporter.report(event::session_limit_reached, address, limit);
        turn_away(connection, "421 %s Too many sessions, try again later\r\n");
        return true;
    }
    return false;
}

// Gives an accepted connection its session and thread. The socket is the
// session's once the thread runs, else it is closed here.
void start_session(os::SOCKET connection) {
    SmtpSession* session = make_session();
    if (session == nullptr) {
        event_reporter.report(event::no_memory_for_session);
        os::closesocket(connection);
        return;
    }
    session->socket = connection;
    sessions_running.fetch_add(1);
    if (!session->thread.start(session_thread, session, session_stack_size)) {
        const os::DWORD error = os::GetLastError();
        sessions_running.fetch_sub(1);
        event_reporter.report_error(event::create_thread_failed, "smtp_session", error);
        free_session(session);
        os::closesocket(connection);
        return;
    }
    // Our last touch of the session: from here on its thread owns it.
    session->start_latch.open();
}

}  // namespace

void apply_session_timeout(os::SOCKET socket) {
    if (session_timeout == 0) return;
    if (!set_socket_timeouts(socket, session_timeout))
        log_debug("session time-out not set: error %d", os::WSAGetLastError());
}

unsigned smtp_listen(void*) {
    ListenerRunning running;
    const os::SOCKET socket = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
    listen_socket.store(socket);
    if (socket == os::INVALID_SOCKET) {
        char text[error_text_size];
        event_reporter.report(event::socket_failed, winsock_error_text(text, sizeof text));
        return 0;
    }
    if (!open_port(socket)) return 0;
    for (;;) {
        if (stop_flag.load() != 0) {
            os::shutdown(socket, os::SD_BOTH);
            os::closesocket(socket);
            return 0;
        }
        os::sockaddr_in peer{};
        int peer_length = sizeof peer;
        const os::SOCKET connection =
            os::accept(socket, reinterpret_cast<os::sockaddr*>(&peer), &peer_length);
        log_debug("accept returned %x", static_cast<unsigned>(connection));
        if (connection == os::INVALID_SOCKET) continue;
        if (stop_flag.load() != 0) {
            // The connection that woke us after a stop gets no reply.
            os::closesocket(connection);
            continue;
        }
        if (!refused_by_limits(connection, peer)) start_session(connection);
    }
}

unsigned session_thread(void* argument) {
    auto* session = static_cast<SmtpSession*>(argument);
    session->start_latch.wait();
    event_reporter.report_if(QBSMTP_LOG_SESSIONS, event::session_started);
    session->spool = nullptr;
    session_reset_buffers(*session);
    apply_session_timeout(session->socket);
    try {
        smtp_session(*session);
    } catch (...) {
        // A failed send ends the dialogue; the clean-up below is the same.
    }
    if (session->spool != nullptr) {
        // A message still under reception has had no 250: it goes.
        session->spool->close();
        session->spool = nullptr;
        os::DeleteFileA(session->spool_path);
    }
    session->end_tls(true);
    os::closesocket(session->socket);
    event_reporter.report_if(QBSMTP_LOG_SESSIONS, event::session_ended);
    free_session(session);
    sessions_running.fetch_sub(1);
    return 0;
}

}  // namespace qbsmtp
