// os_posix_prefix.cpp: the platform prefix, the directory that holds the
// backend's own state (registry.reg, services, events.jsonl), like a Wine
// prefix.
//
// It is $QBSMTP_PREFIX, else $HOME/.qbsmtp, read once per process at the
// first use and created then (mode 0700, with missing parents).
#include <errno.h>
#include <sys/stat.h>

#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/os_posix_internal.h"

namespace qbsmtp::os::posix {
namespace {

// mkdir -p; true when path is a directory at the end.
bool make_directories(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0) return S_ISDIR(status.st_mode);
    std::size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !make_directories(path.substr(0, slash)))
        return false;
    return ::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
}

std::string choose_prefix() {
    const char* configured = std::getenv("QBSMTP_PREFIX");
    std::string path;
    if (configured != nullptr && *configured != '\0') {
        path = configured;
    } else {
        const char* home = std::getenv("HOME");
        path = std::string(home != nullptr && *home != '\0' ? home : "/tmp") + "/.qbsmtp";
    }
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return make_directories(path) ? path : std::string();
}

}  // namespace

const std::string& prefix_directory() {
    static std::once_flag once;
    static std::string* prefix = nullptr;  // never freed: used until the process ends
    std::call_once(once, [] { prefix = new std::string(choose_prefix()); });
    return *prefix;
}

std::string prefix_file(const char* name) {
    return prefix_directory() + "/" + name;
}

}  // namespace qbsmtp::os::posix
