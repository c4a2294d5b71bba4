// parse.cpp: one pass of SMTPRecvNext over a spool directory until it is
// empty, for batch use and tests; the same JSON lines as serve.
//
// The module takes its spool directory only through SMTPRecvInit, which
// also starts its listener. parse stops reception right after it started,
// so the listener closes its port the first time it looks at the stop flag
// and never accepts a message; the process ends without waiting for it.
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include "bridge.h"
#include "commands.h"
#include "module_loader.h"
#include "platform_prefix.h"
#include "receive_loop.h"
#include "stop_signals.h"

namespace qbsmtp::host {

int run_parse(const ParseOptions& options) {
    const Prefix prefix = resolve_prefix();
    block_stop_signals();
    Module module;
    std::string error;
    if (!module.load(module_candidates(options.module_path), error)) {
        std::cerr << "qbsmtp-host: " << error << '\n';
        return 1;
    }
    std::error_code failure;
    const auto spool = std::filesystem::absolute(
        options.spool.empty() ? prefix.spool() : std::filesystem::path(options.spool), failure);
    if (module.recv_init(spool.c_str()) != 1) {
        std::cerr << "qbsmtp-host: SMTPRecvInit(" << spool.string()
                  << ") failed; the event log says why (qbsmtp-host events)\n";
        return 1;
    }
    module.recv_stop();

    const std::int64_t pass_start = std::chrono::duration_cast<std::chrono::seconds>(
                                        std::chrono::system_clock::now().time_since_epoch())
                                        .count();
    std::unique_ptr<Bridge> bridge;
    const RecordHandler handle = record_handler(bridge, options.exec, spool, prefix.events(),
                                                options.delete_taken, std::cout);
    for (;;) {
        switch (receive_one(module, options.subtype_rank, handle, error)) {
            case RoundResult::taken:
                if (wait_for_stop_signal(0)) return 1;
                continue;
            case RoundResult::stopped:
                return 1;
            case RoundResult::empty:
                // Then the deferred messages whose time had come when the
                // pass began, each once.
                while (bridge) {
                    const RoundResult retried = bridge->retry_due(error, pass_start);
                    if (retried == RoundResult::empty) break;
                    if (retried == RoundResult::stuck) {
                        std::cerr << "qbsmtp-host: " << error << '\n';
                        return 1;
                    }
                    if (retried == RoundResult::stopped || wait_for_stop_signal(0)) return 1;
                }
                return 0;
            case RoundResult::failed_empty:
                std::cerr << "qbsmtp-host: SMTPRecvNext failed without taking a message\n";
                return 1;
            case RoundResult::stuck:
                std::cerr << "qbsmtp-host: " << error << '\n';
                return 1;
        }
    }
}

}  // namespace qbsmtp::host
