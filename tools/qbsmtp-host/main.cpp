// main.cpp: the command line of qbsmtp-host.
//
// qbsmtp-host [--module PATH] [--prefix DIR] (serve | parse | send | events)
// A malformed command line gives a usage message on stderr and the exit
// status 64 (EX_USAGE); --help and --version give 0.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
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
    add_prefer_option(*serve_command, serve.subtype_rank);

    ParseOptions parse;
    auto* parse_command = app.add_subcommand(
        "parse", "Take every waiting spool file apart once, printing JSON lines, then exit");
    add_module_option(*parse_command, parse.module_path);
    parse_command->add_option("--spool", parse.spool, "Spool directory (default <prefix>/spool)")
        ->type_name("DIR");
    parse_command->add_flag("--delete", parse.delete_taken,
                            "Delete each spool file once printed (default: move it to done/)");
    add_prefer_option(*parse_command, parse.subtype_rank);

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
        ->add_option("files", send.files,
                     "The message's files: a first .txt file is its text, the others attachments")
        ->required()
        ->check(CLI::ExistingFile);

    EventsOptions events;
    auto* events_command = app.add_subcommand("events", "Print the module's event log");
    events_command->add_flag("--follow,-f", events.follow, "Keep printing new events");

    try {
        app.parse(argc, argv);
        if (!serve_mask.empty()) {
            const std::string error = parse_mask(serve_mask, serve.mask);
            if (!error.empty()) throw CLI::ValidationError("--mask", error);
        }
    } catch (const CLI::ParseError& e) {
        const int status = app.exit(e);
        return status == 0 ? 0 : exit_usage;
    }
    // The module reads the prefix from the environment when it loads.
    if (!prefix.empty()) setenv("QBSMTP_PREFIX", prefix.c_str(), 1);

    if (*serve_command) return run_serve(serve);
    if (*parse_command) return run_parse(parse);
    if (*send_command) return run_send(send);
    return run_events(events);
}
