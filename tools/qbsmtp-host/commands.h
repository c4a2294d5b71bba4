// commands.h: the subcommands of qbsmtp-host and their options.
//
// main.cpp reads the command line into these structures and calls the
// command; each command returns the process's exit status. Every command
// that loads the module takes it from module_path, or from the default
// locations when that is empty.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bridge.h"
#include "host_record.h"

namespace qbsmtp::host {

// Exit statuses beside 0 and 1 (sysexits.h values, which mail tools share).
inline constexpr int exit_usage = 64;
inline constexpr int exit_unavailable = 69;  // serve: reception is off
inline constexpr int exit_temporary_failure = 75;

struct ServeOptions {
    std::string module_path;
    std::uint32_t mask = 0x80300000u;  // sessions, debug copies, send reports
    std::string spool;                 // empty: <prefix>/spool
    int interval_ms = 200;
    std::optional<int> port;
    bool delete_taken = false;
    SubtypeRank subtype_rank = default_subtype_rank();
    std::optional<ExecSettings> exec;  // --exec: a command per record
    // Reception's settings, written for the module's load; each only when
    // given.
    std::optional<std::string> tls_cert;  // TlsCertificateFile
    std::optional<std::string> tls_key;   // TlsKeyFile
    bool require_tls = false;             // RequireTls 1
    bool esmtp = false;                   // Esmtp 1
    std::vector<std::string> allow;       // AllowedClients, joined by commas
    std::optional<std::uint32_t> max_message_size;
    std::optional<std::uint32_t> max_sessions;
};

struct ParseOptions {
    std::string module_path;
    std::string spool;  // empty: <prefix>/spool
    bool delete_taken = false;
    SubtypeRank subtype_rank = default_subtype_rank();
    std::optional<ExecSettings> exec;
};

struct CheckOptions {
    std::string module_path;
    std::string spool;  // empty: <prefix>/spool
    std::string relay;  // empty: not checked
    std::optional<int> relay_port;
    int timeout_seconds = 10;
};

struct SendOptions {
    std::string module_path;
    std::string relay;
    std::optional<std::string> sender;
    std::vector<std::string> recipients;
    std::optional<std::string> subject;
    std::vector<std::string> files;
    std::optional<int> port;
    // The relay's settings, written for the module's load (RelaySecurity and
    // the others); each only when given.
    std::optional<int> security;  // 0 none, 1 starttls, 2 require-starttls, 3 tls
    std::optional<std::string> user;
    std::optional<std::string> password_file;
    std::optional<std::string> token_file;
    std::optional<std::string> ca_file;
    bool no_verify = false;
};

struct EventsOptions {
    bool follow = false;
    int interval_ms = 200;
};

int run_serve(const ServeOptions& options);
int run_parse(const ParseOptions& options);
int run_send(const SendOptions& options);
int run_events(const EventsOptions& options);
int run_check(const CheckOptions& options);

}  // namespace qbsmtp::host
