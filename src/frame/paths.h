// paths.h: path texts, directories, unique spool file names and the
// directory search.
//
// Paths use the platform's separator (os::path_separator) as their only
// separator and hold at most 260 bytes with their NUL. None of these
// operations reports an event: they leave the reason in the last error,
// and the caller reports.
#pragma once

#include <cstddef>

#include "frame/counted_string.h"
#include "platform/os.h"

namespace qbsmtp {

inline constexpr std::size_t max_path = 260;

// Behind the last separator; the whole text without one.
const char* path_file_name(const char* text);
// The extension with its dot, pointing into text, or an empty string.
const char* path_extension(const char* text);
char* remove_last_component(CountedString& path);
void append_component(CountedString& path, const char* component);
char* change_extension(CountedString& path, const char* extension);
int is_directory(const CountedString& path);
// 1 when the directory exists on return (made with its parents), else 0.
int ensure_directory(const CountedString& path);
// Creates a new empty file named directory + prefix + digits + extension;
// the handle is the caller's to close. On failure path holds the template
// (with '*' for the digits) and the result is INVALID_HANDLE_VALUE.
os::HANDLE create_unique_file(const CountedString& directory, char* path, std::size_t capacity,
                              const char* prefix, const char* extension);

class FileFinder {
  public:
    int found = 0;
    os::WIN32_FIND_DATAA data{};
    os::HANDLE handle = os::INVALID_HANDLE_VALUE;

    FileFinder() = default;
    ~FileFinder();
    FileFinder(const FileFinder&) = delete;
    FileFinder& operator=(const FileFinder&) = delete;

    int find_first(const char* directory, const char* pattern);
    int find_next();
    int is_dot_entry() const;
};

}  // namespace qbsmtp
