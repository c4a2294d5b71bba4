// main.cpp: the command line of qbsmtp-host.
//
// qbsmtp-host [--prefix DIR] (serve | parse | send | events | check) ...
// A malformed command line gives a usage message on stderr and the exit
// status 64 (EX_USAGE); --help and --version give 0.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

#include "commands.h"
#include "host_record.h"

#ifndef QBSMTP_VERSION
#define QBSMTP_VERSION "unknown"
#endif

namespace {

using namespace qbsmtp::host;

// A logging mask in C notation: 0x80300000, or decimal.
std::string parse_mask(const std::string& text, std::uint32_t& mask) {
    try {
        std::size_t used = 0;
        const unsigned long long value = std::stoull(text, &used, 0);
        if (used != text.size() || value > 0xFFFFFFFFull) return "not a 32-bit mask: " + text;
        mask = static_cast<std::uint32_t>(value);
        return {};
    } catch (const std::exception&) {
        return "not a 32-bit mask: " + text;
    }
}

// --prefer: the subtypes to keep first among alternatives.
void add_prefer_option(CLI::App& command, SubtypeRank& rank) {
    command
        .add_option_function<std::string>(
            "--prefer",
            [&rank](const std::string& list) {
                std::string error;
                if (!parse_subtype_preference(list, rank, error))
                    throw CLI::ValidationError("--prefer", error);
            },
            "Subtypes preferred among the parts of a multipart/alternative, best first "
            "(default plain,enriched,html; the others follow)")
        ->type_name("LIST");
}

void add_module_option(CLI::App& command, std::string& module_path) {
    command
        .add_option("--module", module_path,
                    "The module to load (default: QBSMTP.so next to the program, then the "
                    "installed one)")
        ->type_name("PATH");
}

const CLI::Range port_range(1, 65535);

// A duration: seconds, or a number with s, m, h or d; at most ten years,
// which a 32-bit long still holds in seconds.
long parse_duration(const std::string& option, const std::string& text) {
    std::size_t used = 0;
    long value = -1;
    try {
        value = std::stol(text, &used);
    } catch (const std::exception&) {
    }
    static constexpr struct {
        char unit;
        long seconds;
    } units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    long scale = used == text.size() ? 1 : 0;
    for (const auto& unit : units)
        if (used + 1 == text.size() && text[used] == unit.unit) scale = unit.seconds;
    if (value < 0 || scale == 0 || value > 10L * 365 * 86400 / scale)
        throw CLI::ValidationError(option, "not a duration (N, Ns, Nm, Nh or Nd): " + text);
    return value * scale;
}

// --exec and what goes with it, for serve and parse.
struct ExecOptions {
    std::string command, timeout = "10m", retry_max = "5d";
    long retry_first = 60;
};

void add_exec_options(CLI::App& command, ExecOptions& exec) {
    command
        .add_option("--exec", exec.command,
                    "Run CMD (through /bin/sh -c) for each message, with its record as JSON "
                    "on stdin: exit 0 done, 75 try again later, any other failed")
        ->type_name("CMD");
    command
        .add_option("--exec-timeout", exec.timeout,
                    "A run of CMD longer than this counts as exit 75 (default 10m)")
        ->type_name("DURATION");
    command
        .add_option("--retry-max", exec.retry_max,
                    "How long a message may stay deferred before it fails (default 5d)")
        ->type_name("DURATION");
    // The first retry delay, in seconds, for tests; it doubles up to an hour.
    command.add_option("--retry-first", exec.retry_first)->check(CLI::Range(1, 3600))->group("");
}

std::optional<ExecSettings> exec_settings(const ExecOptions& exec) {
    if (exec.command.empty()) return std::nullopt;
    ExecSettings settings;
    settings.command = exec.command;
    settings.timeout_seconds = parse_duration("--exec-timeout", exec.timeout);
    if (settings.timeout_seconds == 0)
        throw CLI::ValidationError("--exec-timeout", "must be at least one second");
    settings.schedule.first_seconds = exec.retry_first;
    settings.schedule.max_seconds = parse_duration("--retry-max", exec.retry_max);
    return settings;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"qbsmtp-host: runs the QBSMTP mail gateway module (QBSMTP.so) as its host"};
    app.set_version_flag("--version", std::string("qbsmtp-host ") + QBSMTP_VERSION);
    app.require_subcommand(1);
    std::string prefix;
    app.add_option("--prefix", prefix,
                   "The module's settings and event log directory (default: $QBSMTP_PREFIX, "
                   "else ~/.qbsmtp)")
        ->type_name("DIR");

    ServeOptions serve;
    std::string serve_mask;
    auto* serve_command = app.add_subcommand(
        "serve", "Receive mail: run the SMTP server and print each message as a JSON line");
    add_module_option(*serve_command, serve.module_path);
    serve_command->add_option("--mask", serve_mask, "Logging mask for SMTPSetLogging (0x80300000)")
        ->type_name("MASK");
    serve_command->add_option("--spool", serve.spool, "Spool directory (default <prefix>/spool)")
        ->type_name("DIR");
    serve_command->add_option("--interval", serve.interval_ms, "Poll interval in milliseconds")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
    serve_command
        ->add_option("--port", serve.port,
                     "Listen on this port: written as \"smtp PORT/tcp\" into <prefix>/services")
        ->check(port_range);
    serve_command->add_flag("--delete", serve.delete_taken,
                            "Delete each spool file once printed (default: move it to done/)");
    serve_command
        ->add_option("--tls-cert", serve.tls_cert,
                     "PEM certificate (chain) for STARTTLS; with --tls-key")
        ->check(CLI::ExistingFile);
    serve_command->add_option("--tls-key", serve.tls_key, "PEM private key of --tls-cert")
        ->check(CLI::ExistingFile);
    serve_command->add_flag("--require-tls", serve.require_tls,
                            "Refuse MAIL, RCPT and DATA with 530 until STARTTLS");
    serve_command->add_flag("--esmtp", serve.esmtp,
                            "Answer EHLO even without a certificate (default: 500, as documented)");
    serve_command
        ->add_option("--allow", serve.allow,
                     "Accept connections only from this IPv4 address or CIDR range (repeatable)")
        ->type_name("CIDR");
    serve_command
        ->add_option("--max-message-size", serve.max_message_size,
                     "Refuse a message of more bytes with 552")
        ->type_name("BYTES");
    serve_command
        ->add_option("--max-sessions", serve.max_sessions,
                     "Turn away connections beyond this many sessions with 421")
        ->type_name("N");
    add_prefer_option(*serve_command, serve.subtype_rank);
    ExecOptions serve_exec;
    add_exec_options(*serve_command, serve_exec);

    ParseOptions parse;
    auto* parse_command = app.add_subcommand(
        "parse", "Take every waiting spool file apart once, printing JSON lines, then exit");
    add_module_option(*parse_command, parse.module_path);
    parse_command->add_option("--spool", parse.spool, "Spool directory (default <prefix>/spool)")
        ->type_name("DIR");
    parse_command->add_flag("--delete", parse.delete_taken,
                            "Delete each spool file once printed (default: move it to done/)");
    add_prefer_option(*parse_command, parse.subtype_rank);
    ExecOptions parse_exec;
    add_exec_options(*parse_command, parse_exec);

    SendOptions send;
    auto* send_command =
        app.add_subcommand("send", "Send one message with FILES as its text and attachments");
    add_module_option(*send_command, send.module_path);
    send_command->add_option("--relay", send.relay, "The SMTP relay's host name or address")
        ->required();
    send_command->add_option("--from", send.sender, "Sender address");
    send_command->add_option("--to", send.recipients, "Recipient address (repeatable)")
        ->required()
        ->check(CLI::Validator(
            [](std::string& address) {
                // An empty entry would end the packed recipient list early.
                return address.empty() ? std::string("empty address") : std::string();
            },
            "ADDRESS"));
    send_command->add_option("--subject", send.subject, "Subject");
    send_command
        ->add_option("--port", send.port,
                     "The relay's port for this message (default: the service smtp's)")
        ->check(port_range);
    send_command
        ->add_option("--security", send.security,
                     "none: the documented dialogue; starttls: when offered; require-starttls; "
                     "tls: TLS from the first byte")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, int>{
                {"none", 0}, {"starttls", 1}, {"require-starttls", 2}, {"tls", 3}},
            CLI::ignore_case));
    send_command->add_option("--user", send.user, "The user name for AUTH");
    send_command
        ->add_option("--password-file", send.password_file, "A file holding the AUTH password")
        ->check(CLI::ExistingFile);
    send_command
        ->add_option("--token-file", send.token_file,
                     "A file holding an OAuth2 bearer token (AUTH XOAUTH2), read at every send")
        ->check(CLI::ExistingFile);
    send_command->add_option("--ca-file", send.ca_file, "More trusted certificates (PEM)")
        ->check(CLI::ExistingFile);
    send_command->add_flag("--no-verify", send.no_verify,
                           "Do not check the relay's certificate (a warning event at every send)");
    send_command
        ->add_option("files", send.files,
                     "The message's files: a first .txt file is its text, the others attachments")
        ->required()
        ->check(CLI::ExistingFile);

    EventsOptions events;
    auto* events_command = app.add_subcommand("events", "Print the module's event log");
    events_command->add_flag("--follow,-f", events.follow, "Keep printing new events");

    CheckOptions check;
    auto* check_command = app.add_subcommand(
        "check", "Check the settings, the port, the spool directory and the relay, one line each");
    add_module_option(*check_command, check.module_path);
    check_command->add_option("--spool", check.spool, "Spool directory (default <prefix>/spool)")
        ->type_name("DIR");
    check_command->add_option("--relay", check.relay, "Also check that this relay answers")
        ->type_name("HOST");
    check_command
        ->add_option("--relay-port", check.relay_port, "The relay's port (default: smtp's)")
        ->check(port_range);
    check_command
        ->add_option("--timeout", check.timeout_seconds, "Seconds to wait for the relay's greeting")
        ->check(CLI::Range(1, 600))
        ->capture_default_str();

    try {
        app.parse(argc, argv);
        if (!serve_mask.empty()) {
            const std::string error = parse_mask(serve_mask, serve.mask);
            if (!error.empty()) throw CLI::ValidationError("--mask", error);
        }
        serve.exec = exec_settings(serve_exec);
        parse.exec = exec_settings(parse_exec);
    } catch (const CLI::ParseError& e) {
        const int status = app.exit(e);
        return status == 0 ? 0 : exit_usage;
    }
    // The module reads the prefix from the environment when it loads.
    if (!prefix.empty()) setenv("QBSMTP_PREFIX", prefix.c_str(), 1);

    if (*serve_command) return run_serve(serve);
    if (*parse_command) return run_parse(parse);
    if (*send_command) return run_send(send);
    if (*check_command) return run_check(check);
    return run_events(events);
}
