// os_posix_names.cpp: file names as Windows sees them.
//
// The backend refuses the names that Windows refuses, so that one message
// leaves the same files on both platforms: a component may not hold
// < > : " | ? * or a byte from 1 to 31 (ERROR_INVALID_NAME), and a path
// with its NUL must fit its limit (ERROR_FILENAME_EXCED_RANGE). Search
// patterns match names with '*' and '?', ignoring ASCII case.
#include <cstring>
#include <string>

#include "platform/os_posix_internal.h"

namespace qbsmtp::os::posix {
namespace {

bool refused_in_name(unsigned char c) {
    if (c >= 1 && c <= 31) return true;
    return std::strchr("<>:\"|?*", c) != nullptr && c != 0;
}

}  // namespace

char fold_ascii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string fold_ascii(const std::string& text) {
    std::string folded(text);
    for (char& c : folded) c = fold_ascii(c);
    return folded;
}

DWORD check_windows_path(const char* path, std::size_t max_bytes) {
    std::size_t length = std::strlen(path);
    for (std::size_t i = 0; i < length; ++i) {
        if (refused_in_name(static_cast<unsigned char>(path[i]))) return ERROR_INVALID_NAME;
    }
    if (length + 1 > max_bytes) return ERROR_FILENAME_EXCED_RANGE;
    return ERROR_SUCCESS;
}

bool wildcard_match(const char* pattern, const char* name) {
    // "*.*" is every name on Windows, also one without a dot.
    if (std::strcmp(pattern, "*.*") == 0) return true;
    // Iterative glob with one backtrack point: the last '*' seen.
    const char* star = nullptr;
    const char* resume = nullptr;
    while (*name != '\0') {
        if (*pattern == '*') {
            star = pattern++;
            resume = name;
        } else if (*pattern == '?' ||
                   (*pattern != '\0' && fold_ascii(*pattern) == fold_ascii(*name))) {
            ++pattern;
            ++name;
        } else if (star != nullptr) {
            pattern = star + 1;
            name = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == '*') ++pattern;
    return *pattern == '\0';
}

}  // namespace qbsmtp::os::posix
