// module_loader.h: loads QBSMTP.so with dlopen and resolves its exports,
// as any host of the module does.
//
// A Module either holds all eight entry points (the six exports plus the
// module's LocalAlloc and LocalFree, which a host must use for the blocks
// of a MailRecord) or none: load() gives false with a readable reason and
// leaves nothing loaded. The library stays loaded until the process ends,
// because the module's threads run on after the host stops calling in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qbsmtp/qbsmtp.h"

namespace qbsmtp::host {

struct Module {
    void (*set_logging)(std::uint32_t mask) = nullptr;
    std::int32_t (*recv_init)(const char* spool_dir) = nullptr;
    std::int32_t (*recv_stop)() = nullptr;
    std::int32_t (*recv_next)(MailRecord* record) = nullptr;
    std::int32_t (*send_init)(const char* relay_host) = nullptr;
    std::int32_t (*send)(MailRecord* record) = nullptr;
    void* (*local_alloc)(unsigned int flags, std::size_t bytes) = nullptr;
    void* (*local_free)(void* block) = nullptr;

    std::string path;  // the file that was loaded

    // Loads the first of candidates that exists (an explicit --module path
    // is the only candidate, and must exist). On failure error says why.
    bool load(const std::vector<std::string>& candidates, std::string& error);
};

// Where to look for the module when no --module is given: next to the
// program, then the installed layout relative to the program (so a tree
// installed under any prefix finds its own module), then the configured
// install location.
std::vector<std::string> default_module_candidates();

// The explicit path alone if one was given, else the default candidates.
std::vector<std::string> module_candidates(const std::string& explicit_path);

}  // namespace qbsmtp::host
