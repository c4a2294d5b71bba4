// send.cpp: one message out through the module. Builds a MailRecord from
// the command line with blocks from the module's LocalAlloc, calls
// SMTPSendInit and SMTPSend, prints the outcome as JSON, and frees the
// blocks with the module's LocalFree.
//
// The module sends to the relay's port of the service "smtp", as the
// prefix's services file (else the system's) gives it. --port sets it for
// this message only: the entry is written for the module's load and put
// back right after, so serve keeps its own port.
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

}  // namespace

int run_send(const SendOptions& options) {
    const Prefix prefix = resolve_prefix();
    std::string error;
    TemporarySmtpPort relay_port;
    if (options.port && !relay_port.apply(prefix.services(), *options.port, error)) {
        std::cerr << "qbsmtp-host: " << error << '\n';
        return 1;
    }
    block_stop_signals();
    Module module;
    const bool loaded = module.load(module_candidates(options.module_path), error);
    relay_port.restore();
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
