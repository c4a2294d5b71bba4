// send.cpp: one message out through the module. Builds a MailRecord from
// the command line with blocks from the module's LocalAlloc, calls
// SMTPSendInit and SMTPSend, prints the outcome as JSON, and frees the
// blocks with the module's LocalFree.
//
// The module sends to the relay's port of the service "smtp", as the
// prefix's services file (else the system's) gives it. --port and the
// relay's security options are the module's Relay* settings for this
// message only: they are added to registry.reg for the module's load and
// taken out right after, so the prefix keeps its own settings.
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "host_record.h"
#include "module_loader.h"
#include "platform_prefix.h"
#include "stop_signals.h"

namespace qbsmtp::host {

namespace {

// Fills sender, subject, to and attachments, the fields SMTPSend reads.
bool fill_send_record(MailRecord& record, const SendOptions& options, const Allocator& allocator) {
    bool failed = false;
    if (options.sender) {
        record.sender = allocate_text(*options.sender, record.sender_length, allocator);
        failed |= record.sender == nullptr;
    }
    if (options.subject) {
        record.subject = allocate_text(*options.subject, record.subject_length, allocator);
        failed |= record.subject == nullptr;
    }
    bool list_failed = false;
    record.to = allocate_list(options.recipients, allocator, list_failed);
    failed |= list_failed;
    record.attachments = allocate_list(options.files, allocator, list_failed);
    failed |= list_failed;
    return !failed;
}

std::string dword_line(const char* name, int value) {
    char text[80];
    std::snprintf(text, sizeof text, "\"%s\"=dword:%08x\n", name, static_cast<unsigned>(value));
    return text;
}

// The relay's settings that the command line gives; file names are made
// absolute, as the module does not share this process's directory view.
std::string relay_settings(const SendOptions& options) {
    std::string lines;
    const auto file = [&](const char* name, const std::optional<std::string>& path) {
        if (path) lines += registry_text_line(name, std::filesystem::absolute(*path).string());
    };
    if (options.port) lines += dword_line("RelayPort", *options.port);
    if (options.security) lines += dword_line("RelaySecurity", *options.security);
    if (options.user) lines += registry_text_line("RelayUser", *options.user);
    file("RelayPasswordFile", options.password_file);
    file("RelayTokenFile", options.token_file);
    file("RelayCAFile", options.ca_file);
    if (options.no_verify) lines += dword_line("RelayVerify", 0);
    return lines;
}

}  // namespace

int run_send(const SendOptions& options) {
    const Prefix prefix = resolve_prefix();
    std::string error;
    TemporarySettings settings;
    const std::string lines = relay_settings(options);
    if (!lines.empty() && !settings.apply(prefix.registry(), lines, error)) {
        std::cerr << "qbsmtp-host: " << error << '\n';
        return 1;
    }
    block_stop_signals();
    Module module;
    const bool loaded = module.load(module_candidates(options.module_path), error);
    settings.restore();
    if (!loaded) {
        std::cerr << "qbsmtp-host: " << error << '\n';
        return 1;
    }
    if (module.send_init(options.relay.c_str()) != 1) {
        std::cerr << "qbsmtp-host: SMTPSendInit(" << options.relay
                  << ") failed: the name did not resolve, or the module could not start "
                     "(qbsmtp-host events says which)\n";
        return 1;
    }
    const Allocator allocator{module.local_alloc, module.local_free};
    MailRecord record;
    prepare_for_receive(record, nullptr);
    if (!fill_send_record(record, options, allocator)) {
        release_record(record, allocator);
        std::cerr << "qbsmtp-host: out of memory for the record\n";
        return 1;
    }
    const bool delivered = module.send(&record) == 1;
    const bool temporary = !delivered && record.temporary_failure != 0;
    release_record(record, allocator);

    nlohmann::ordered_json outcome;
    outcome["delivered"] = delivered;
    outcome["temporary_failure"] = temporary;
    std::cout << outcome.dump() << std::endl;
    if (delivered) return 0;
    return temporary ? exit_temporary_failure : 1;
}

}  // namespace qbsmtp::host
