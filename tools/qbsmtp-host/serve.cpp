// serve.cpp: the gateway as a service. Starts reception, waits until the
// module's listener has really opened the port (or has given up: exit 69,
// EX_UNAVAILABLE, so that a service manager tries again), polls
// SMTPRecvNext, prints each record as a JSON line on stdout or hands it to
// the --exec command (bridge.h), and echoes the module's warnings and
// errors to stderr as they are logged.
//
// Stopping: SMTPRecvStop only sets a flag that the listener looks at when
// accept next returns, so after it the host makes one loopback connection
// to its own port. The listener wakes, closes that connection unanswered
// and ends, and the host exits; sessions still running end with the
// process: a message is renamed to .822 before its 250, so one they had
// not yet acknowledged was never accepted and one they had is kept.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>

#include <memory>

#include "bridge.h"
#include "commands.h"
#include "event_log.h"
#include "module_loader.h"
#include "platform_prefix.h"
#include "port_owner.h"
#include "receive_loop.h"
#include "stop_signals.h"

namespace qbsmtp::host {

namespace {

namespace fs = std::filesystem;

// Longest wait for the listener to close the wake-up connection.
constexpr int wake_timeout_seconds = 2;

// Connects to the listener on loopback so that its blocked accept returns
// and it sees the stop flag; waits (bounded) until it has closed the
// connection, so the listener is done before the process exits.
void wake_listener(int port) {
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) return;
    timeval timeout{wake_timeout_seconds, 0};
    ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        char sink[256];
        while (::recv(s, sink, sizeof sink, 0) > 0) {
        }
    }
    ::close(s);
}

// Writes the port into the prefix before the module reads it: the one
// given, or on the first run of the default prefix the unprivileged one.
bool settle_port(const Prefix& prefix, const std::optional<int>& port) {
    std::string error;
    std::error_code failure;
    if (port) {
        if (write_smtp_port(prefix.services(), *port, error)) return true;
    } else if (prefix.is_default && !fs::exists(prefix.services(), failure)) {
        if (write_smtp_port(prefix.services(), first_run_port, error)) return true;
    } else {
        return true;
    }
    std::cerr << "qbsmtp-host: " << error << '\n';
    return false;
}

// How often serve looks whether the listener has opened the port yet.
constexpr int listener_look_ms = 20;

// The module's events that mean its listener has ended for good: socket,
// setsockopt, bind and listen failures, and another server on the port.
constexpr const char* listener_failures[] = {"0xC0004E91", "0xC0004E92", "0xC0004E95", "0xC0004E96",
                                             "0xC00027D9"};

// Echoes the module's warnings and errors (the host says its own itself);
// gives the text of the last listener failure among them, if any.
std::string echo_alarming_events(EventLogReader& events) {
    std::string listener_failure;
    for (const auto& line : events.read_new_lines()) {
        const std::string type = event_type(line);
        if ((type != "error" && type != "warning") || event_source(line) == host_event_source)
            continue;
        std::cerr << "qbsmtp-host: event: " << format_event(line) << '\n';
        for (const char* id : listener_failures)
            if (event_id(line) == id) listener_failure = format_event(line);
    }
    return listener_failure;
}

enum class Reception { listening, off, stopped };

// Waits until this process listens on the port, the module reports that
// its listener ended, or a stop signal. A listener failure reported while
// a socket of ours listens came from another process of the same prefix.
Reception wait_for_listener(int port, EventLogReader& events, std::string& why) {
    for (;;) {
        if (this_process_listens(port)) return Reception::listening;
        why = echo_alarming_events(events);
        if (!why.empty() && !this_process_listens(port)) return Reception::off;
        if (wait_for_stop_signal(listener_look_ms)) return Reception::stopped;
    }
}

// Reception's settings that the command line gives; file names are made
// absolute, as the module does not share this process's directory view.
std::string reception_settings(const ServeOptions& options) {
    std::string lines;
    const auto dword = [&](const char* name, std::uint32_t value) {
        char text[80];
        std::snprintf(text, sizeof text, "\"%s\"=dword:%08x\n", name, static_cast<unsigned>(value));
        lines += text;
    };
    const auto file = [&](const char* name, const std::optional<std::string>& path) {
        if (path) lines += registry_text_line(name, fs::absolute(*path).string());
    };
    file("TlsCertificateFile", options.tls_cert);
    file("TlsKeyFile", options.tls_key);
    if (options.require_tls) dword("RequireTls", 1);
    if (options.esmtp) dword("Esmtp", 1);
    if (!options.allow.empty()) {
        std::string list;
        for (const std::string& entry : options.allow) list += (list.empty() ? "" : ",") + entry;
        lines += registry_text_line("AllowedClients", list);
    }
    if (options.max_message_size) dword("MaxMessageSize", *options.max_message_size);
    if (options.max_sessions) dword("MaxSessions", *options.max_sessions);
    return lines;
}

}  // namespace

int run_serve(const ServeOptions& options) {
    const Prefix prefix = resolve_prefix();
    if (!settle_port(prefix, options.port)) return 1;
    const int port = effective_smtp_port(prefix);
    // Before the module loads, so that its threads never take the signals
    // and its load-time events are echoed too.
    block_stop_signals();
    EventLogReader events(prefix.events(), true);

    std::string error;
    TemporarySettings settings;
    const std::string lines = reception_settings(options);
    if (!lines.empty() && !settings.apply(prefix.registry(), lines, error)) {
        std::cerr << "qbsmtp-host: " << error << '\n';
        return 1;
    }
    Module module;
    const bool loaded = module.load(module_candidates(options.module_path), error);
    settings.restore();
    if (!loaded) {
        std::cerr << "qbsmtp-host: " << error << '\n';
        return 1;
    }
    std::error_code failure;
    const fs::path spool =
        fs::absolute(options.spool.empty() ? prefix.spool() : fs::path(options.spool), failure);
    module.set_logging(options.mask);
    if (module.recv_init(spool.c_str()) != 1) {
        echo_alarming_events(events);
        std::cerr << "qbsmtp-host: SMTPRecvInit(" << spool.string()
                  << ") failed; the event log says why (qbsmtp-host events)\n";
        return 1;
    }
    std::string why;
    switch (wait_for_listener(port, events, why)) {
        case Reception::listening:
            break;
        case Reception::stopped:
            std::cerr << "qbsmtp-host: stopped before the port was open" << std::endl;
            return 0;
        case Reception::off:
            report_host_event(
                prefix.events(), host_event::reception_off,
                "reception is off, the module gave up port " + std::to_string(port) + ": " + why);
            return exit_unavailable;
    }
    std::cerr << "qbsmtp-host: listening for SMTP on port " << port
              << " (all IPv4 addresses); spool " << spool.string() << "; events "
              << prefix.events().string() << "; module " << module.path << std::endl;

    std::unique_ptr<Bridge> bridge;
    const RecordHandler handle = record_handler(bridge, options.exec, spool, prefix.events(),
                                                options.delete_taken, std::cout);
    bool warned_failed_empty = false;
    int status = 0;
    for (;;) {
        RoundResult result = receive_one(module, options.subtype_rank, handle, error);
        // One deferred message whose time has come, beside each new one.
        if (bridge && result != RoundResult::stuck && result != RoundResult::stopped) {
            const RoundResult retried = bridge->retry_due(error);
            if (retried != RoundResult::empty) result = retried;
        }
        echo_alarming_events(events);
        if (result == RoundResult::stopped) break;
        if (result == RoundResult::stuck) {
            std::cerr << "qbsmtp-host: " << error << "; stopping, since the module would take "
                      << "the same file again\n";
            status = 1;
            break;
        }
        if (result == RoundResult::failed_empty && !warned_failed_empty) {
            std::cerr << "qbsmtp-host: SMTPRecvNext failed without taking a message\n";
            warned_failed_empty = true;
        }
        // A taken message may have others behind it: look again at once.
        int wait = result == RoundResult::taken ? 0 : options.interval_ms;
        if (bridge) wait = bridge->wait_milliseconds(wait);
        if (wait_for_stop_signal(wait)) break;
    }
    module.recv_stop();
    wake_listener(port);
    echo_alarming_events(events);
    std::cerr << "qbsmtp-host: stopped" << std::endl;
    return status;
}

}  // namespace qbsmtp::host
