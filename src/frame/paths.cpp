// paths.cpp: path texts, directories with their parents, unique spool file
// names and the directory search.
//
// The separator is os::path_separator and nothing else. No operation here
// reports: a failure leaves its reason in the thread's last error, and
// nothing between the failure and the return changes it.

#include "frame/paths.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include "frame/text_ops.h"

namespace qbsmtp {

namespace {

constexpr char separator = os::path_separator;

// What an access-denied CreateDirectoryA waits before its one retry
// (a directory being deleted by someone else is briefly inaccessible).
constexpr os::DWORD access_retry_delay_ms = 300;
// What create_unique_file waits after drawing a name that exists.
constexpr os::DWORD name_collision_delay_ms = 50;

// The longest stem that create_unique_file makes, and its number space.
constexpr int max_stem = 8;
constexpr std::uint32_t name_modulus = 99999999;
// Attempts + 1, by the number of digits; it stops growing at five digits.
constexpr std::uint32_t attempt_table[max_stem + 1] = {
    0, 10, 100, 1000, 10000, 100000, 100000, 100000, 100000,
};

// The numbering of create_unique_file: seeded once from the tick count.
// Relaxed atomics: two threads may draw the same number, and CREATE_NEW
// then sends one of them to its next attempt.
std::atomic<std::uint32_t> name_counter{0};
std::atomic<bool> name_counter_seeded{false};

char ascii_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// lstrcmpiA's equality: plain ASCII case folding, nothing else.
bool equal_ignoring_case(const char* a, const char* b) {
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        if (ascii_lower(*a) != ascii_lower(*b)) return false;
    }
    return *a == *b;
}

}  // namespace

const char* path_file_name(const char* text) {
    if (text == nullptr) return "";
    const char* last = std::strrchr(text, separator);
    return last != nullptr ? last + 1 : text;
}

const char* path_extension(const char* text) {
    if (text == nullptr) return "";
    const std::size_t length = std::strlen(text);
    // "No extension" is the text's own terminating NUL, so callers can
    // take the difference of the two pointers as the length of the stem.
    if (length < 2) return text + length;
    std::size_t i = length - 1;
    while (i > 0 && text[i] != '.' && text[i] != separator) --i;
    return text[i] == '.' ? text + i : text + length;
}

char* remove_last_component(CountedString& path) {
    if (path.text == nullptr) return path.text;
    while (path.length > 0 && path.text[path.length - 1] != separator) {
        path.text[--path.length] = '\0';
    }
    // Keep the separator of a root ("C:\" on Windows) or of a run of them.
    if (path.length > 1 && path.text[path.length - 2] != ':' &&
        path.text[path.length - 2] != separator) {
        path.text[--path.length] = '\0';
    }
    return path.text;
}

void append_component(CountedString& path, const char* component) {
    if (component == nullptr) component = "";
    const std::size_t old_length = path.text != nullptr ? static_cast<std::size_t>(path.length) : 0;
    const std::size_t component_length = std::strlen(component);
    auto* block =
        static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, old_length + component_length + 2));
    if (block == nullptr) {
        os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
        return;
    }
    std::size_t length = old_length;
    if (length > 0) std::memcpy(block, path.text, length);
    if (length > 0 && block[length - 1] != separator) block[length++] = separator;
    std::memcpy(block + length, component, component_length);
    length += component_length;
    block[length] = '\0';
    path.adopt(block, static_cast<std::int32_t>(length));
}

char* change_extension(CountedString& path, const char* extension) {
    const char* old_text = path.c_str();
    const std::size_t stem = static_cast<std::size_t>(path_extension(old_text) - old_text);
    const std::size_t extension_length = extension != nullptr ? std::strlen(extension) : 0;
    auto* block = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, stem + extension_length + 1));
    if (block == nullptr) {
        os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
        return path.text;
    }
    std::memcpy(block, old_text, stem);
    if (extension_length > 0) std::memcpy(block + stem, extension, extension_length);
    block[stem + extension_length] = '\0';
    path.adopt(block, static_cast<std::int32_t>(stem + extension_length));
    return path.text;
}

int is_directory(const CountedString& path) {
    if (path.text == nullptr) return 0;
    const os::DWORD attributes = os::GetFileAttributesA(path.text);
    return attributes != os::INVALID_FILE_ATTRIBUTES &&
                   (attributes & os::FILE_ATTRIBUTE_DIRECTORY) != 0
               ? 1
               : 0;
}

int ensure_directory(const CountedString& path) {
    if (path.text == nullptr) {
        os::SetLastError(os::ERROR_FILE_NOT_FOUND);
        return 0;
    }
    if (is_directory(path)) return 1;
    if (os::CreateDirectoryA(path.text, nullptr)) return 1;

    os::DWORD error = os::GetLastError();
    if (error == os::ERROR_ACCESS_DENIED) {
        os::Sleep(access_retry_delay_ms);
        if (os::CreateDirectoryA(path.text, nullptr)) return 1;
        error = os::GetLastError();
    }
    if (error == os::ERROR_ALREADY_EXISTS) {
        // Something that is not a directory holds the name.
        os::SetLastError(os::ERROR_DIRECTORY);
        return 0;
    }
    if (error != os::ERROR_PATH_NOT_FOUND) {
        os::SetLastError(error);
        return 0;
    }

    CountedString parent(path);
    if (parent.text == nullptr && path.length > 0) {
        os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    remove_last_component(parent);
    if (equal_ignoring_case(parent.c_str(), path.text)) {
        // The walk has reached the root, and the root is missing.
        os::SetLastError(os::ERROR_PATH_NOT_FOUND);
        return 0;
    }
    if (!ensure_directory(parent)) return 0;
    return os::CreateDirectoryA(path.text, nullptr) ? 1 : 0;
}

os::HANDLE create_unique_file(const CountedString& directory, char* path, std::size_t capacity,
                              const char* prefix, const char* extension) {
    if (!name_counter_seeded.load(std::memory_order_relaxed)) {
        name_counter_seeded.store(true, std::memory_order_relaxed);
        name_counter.store(os::GetTickCount(), std::memory_order_relaxed);
    }
    if (prefix == nullptr) prefix = "";
    if (extension == nullptr) extension = "";

    const char* directory_text = directory.c_str();
    const std::size_t directory_length = std::strlen(directory_text);
    const bool add_separator =
        directory_length > 0 && directory_text[directory_length - 1] != separator;
    const std::size_t prefix_length = std::strlen(prefix);
    const std::size_t extension_length = std::strlen(extension);
    const std::size_t stem_offset = directory_length + (add_separator ? 1 : 0) + prefix_length;
    const std::size_t template_length = stem_offset + 1 + extension_length;

    // The template: directory, separator, prefix, '*', extension. It stays
    // in path when the call fails, cut at capacity if it must be.
    if (capacity > 0) {
        path[0] = '\0';
        append_limited(path, directory_text, capacity);
        if (add_separator) {
            const char separator_text[2] = {separator, '\0'};
            append_limited(path, separator_text, capacity);
        }
        append_limited(path, prefix, capacity);
        append_limited(path, "*", capacity);
        append_limited(path, extension, capacity);
    }

    // Characters of the extension before its first dot count against the
    // stem, so the name stays within eight characters before the dot.
    const char* dot = std::strchr(extension, '.');
    const std::size_t extension_stem =
        dot != nullptr ? static_cast<std::size_t>(dot - extension) : extension_length;
    const long long stem_room =
        max_stem - static_cast<long long>(prefix_length) - static_cast<long long>(extension_stem);
    const long long buffer_room = static_cast<long long>(capacity) -
                                  static_cast<long long>(stem_offset) -
                                  static_cast<long long>(extension_length) - 1;
    const long long digits = stem_room < buffer_room ? stem_room : buffer_room;
    // One digit of room means the template fits path as well; the name
    // must also fit the work path, whatever capacity says.
    if (digits < 1 ||
        stem_offset + static_cast<std::size_t>(digits) + extension_length + 1 > max_path) {
        os::SetLastError(os::ERROR_BUFFER_OVERFLOW);
        return os::INVALID_HANDLE_VALUE;
    }

    char work[max_path];
    std::memcpy(work, path, template_length + 1);
    const std::uint32_t attempts = attempt_table[digits] - 1;
    os::HANDLE file = os::INVALID_HANDLE_VALUE;
    for (std::uint32_t attempt = 0; attempt < attempts; ++attempt) {
        const std::uint32_t number =
            (name_counter.fetch_add(1, std::memory_order_relaxed) + 1) % name_modulus + 1;
        // The low-order digits of its eight-digit form.
        char eight[max_stem];
        std::uint32_t rest = number;
        for (int i = max_stem - 1; i >= 0; --i) {
            eight[i] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        }
        std::memcpy(work + stem_offset, eight + max_stem - digits,
                    static_cast<std::size_t>(digits));
        std::memcpy(work + stem_offset + digits, extension, extension_length + 1);

        file = os::CreateFileA(work, os::GENERIC_READ | os::GENERIC_WRITE, 0, nullptr,
                               os::CREATE_NEW, os::FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != os::INVALID_HANDLE_VALUE) break;
        if (os::GetLastError() != os::ERROR_FILE_EXISTS) break;
        if (attempt + 1 < attempts) os::Sleep(name_collision_delay_ms);
    }
    if (file == os::INVALID_HANDLE_VALUE) return file;
    std::memcpy(path, work, stem_offset + static_cast<std::size_t>(digits) + extension_length + 1);
    return file;
}

FileFinder::~FileFinder() {
    if (handle != os::INVALID_HANDLE_VALUE) os::FindClose(handle);
}

int FileFinder::find_first(const char* directory, const char* pattern) {
    if (handle != os::INVALID_HANDLE_VALUE) {
        os::FindClose(handle);
        handle = os::INVALID_HANDLE_VALUE;
    }
    found = 0;

    CountedString search(directory);
    const std::int32_t directory_length = search.length;
    append_component(search, pattern);
    if ((directory != nullptr && directory[0] != '\0' && search.text == nullptr) ||
        (pattern != nullptr && pattern[0] != '\0' && search.length == directory_length)) {
        os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }

    std::memset(&data, 0, sizeof data);
    handle = os::FindFirstFileA(search.c_str(), &data);
    if (handle == os::INVALID_HANDLE_VALUE) {
        // Nothing matched is a proper outcome of a search.
        return os::GetLastError() == os::ERROR_FILE_NOT_FOUND ? 1 : 0;
    }
    found = 1;
    while (found && is_dot_entry()) {
        if (!find_next()) return 0;
    }
    return 1;
}

int FileFinder::find_next() {
    if (handle == os::INVALID_HANDLE_VALUE) {
        found = 0;
        os::SetLastError(os::ERROR_NO_MORE_FILES);
        return 1;
    }
    while (os::FindNextFileA(handle, &data)) {
        if (!is_dot_entry()) return 1;
    }
    const os::DWORD error = os::GetLastError();
    found = 0;
    os::FindClose(handle);
    os::SetLastError(error);
    handle = os::INVALID_HANDLE_VALUE;
    return error == os::ERROR_NO_MORE_FILES ? 1 : 0;
}

int FileFinder::is_dot_entry() const {
    return std::strcmp(data.cFileName, ".") == 0 || std::strcmp(data.cFileName, "..") == 0 ? 1 : 0;
}

}  // namespace qbsmtp
