// module_loader.cpp: dlopen/dlsym of the module and its default locations.
#include "module_loader.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

#ifndef QBSMTP_MODULE_RELATIVE_TO_BIN
#define QBSMTP_MODULE_RELATIVE_TO_BIN "../lib/qbsmtp/QBSMTP.so"
#endif
#ifndef QBSMTP_MODULE_INSTALLED
#define QBSMTP_MODULE_INSTALLED "/usr/local/lib/qbsmtp/QBSMTP.so"
#endif

namespace qbsmtp::host {

namespace {

namespace fs = std::filesystem;

// Binds one export to the pointer it belongs in; false if it is missing.
template <typename Function>
bool resolve(void* library, const char* name, Function& target, std::string& error) {
    dlerror();
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) {
        const char* reason = dlerror();
        error = std::string("the module has no export ") + name +
                (reason != nullptr ? std::string(": ") + reason : std::string());
        return false;
    }
    target = reinterpret_cast<Function>(symbol);
    return true;
}

}  // namespace

std::vector<std::string> default_module_candidates() {
    std::vector<std::string> candidates;
    std::error_code failure;
    const fs::path program = fs::read_symlink("/proc/self/exe", failure);
    if (!failure) {
        const fs::path bin = program.parent_path();
        candidates.push_back((bin / "QBSMTP.so").string());
        candidates.push_back((bin / QBSMTP_MODULE_RELATIVE_TO_BIN).lexically_normal().string());
    }
    candidates.push_back(QBSMTP_MODULE_INSTALLED);
    return candidates;
}

std::vector<std::string> module_candidates(const std::string& explicit_path) {
    if (!explicit_path.empty()) return {explicit_path};
    return default_module_candidates();
}

bool Module::load(const std::vector<std::string>& candidates, std::string& error) {
    std::string chosen;
    for (const auto& candidate : candidates) {
        std::error_code failure;
        if (fs::is_regular_file(candidate, failure)) {
            chosen = candidate;
            break;
        }
    }
    if (chosen.empty()) {
        error = "no module found; looked for";
        for (const auto& candidate : candidates) error += " " + candidate;
        return false;
    }
    // RTLD_LOCAL keeps the module's LocalAlloc/LocalFree out of the global
    // namespace; the host reaches them through dlsym like the exports.
    void* library = dlopen(chosen.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = dlerror();
        error = "cannot load " + chosen + ": " + (reason != nullptr ? reason : "unknown reason");
        return false;
    }
    Module bound;
    if (!resolve(library, "SMTPSetLogging", bound.set_logging, error) ||
        !resolve(library, "SMTPRecvInit", bound.recv_init, error) ||
        !resolve(library, "SMTPRecvStop", bound.recv_stop, error) ||
        !resolve(library, "SMTPRecvNext", bound.recv_next, error) ||
        !resolve(library, "SMTPSendInit", bound.send_init, error) ||
        !resolve(library, "SMTPSend", bound.send, error) ||
        !resolve(library, "LocalAlloc", bound.local_alloc, error) ||
        !resolve(library, "LocalFree", bound.local_free, error)) {
        error = chosen + ": " + error;
        dlclose(library);
        return false;
    }
    bound.path = chosen;
    *this = bound;
    return true;
}

}  // namespace qbsmtp::host
