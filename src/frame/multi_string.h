// multi_string.h: MultiString, a list of texts packed in one LocalAlloc
// block: each entry with its NUL, then one more NUL. A null block and a
// block that starts with NUL are both the empty list. The capacity of a
// block is what LocalSize reports; the list keeps no count of its own.
#pragma once

#include <cstddef>

namespace qbsmtp {

class MultiString {
  public:
    char* block = nullptr;

    MultiString() = default;
    // An empty list with a block of room + 2 bytes (null if that fails).
    explicit MultiString(std::size_t room);
    ~MultiString() { clear(); }
    MultiString(const MultiString&) = delete;
    MultiString& operator=(const MultiString&) = delete;

    void clear();
    // A block of at least size bytes, contents not kept.
    void reserve(std::size_t size);
    // The list holds exactly text (nothing for null or empty).
    void assign(const char* text);
    // Adds an entry; null or empty text changes nothing.
    void append(const char* text);
    // The same for a caller that keeps the list's byte_size in used (0:
    // not known yet, the list is walked once) and updates it, so a list
    // of many entries is never walked again.
    void append(const char* text, std::size_t& used);
    // Bytes used: 0 for an empty list, else the entries with NULs plus 1.
    std::size_t byte_size() const;
    // The block, or the module-wide empty string; never null.
    const char* text() const;
    // The entry behind entry; the module-wide empty string for null or "".
    static const char* next_entry(const char* entry);
    // Gives the block to the caller (a MailRecord field); the list is null.
    char* release() {
        char* b = block;
        block = nullptr;
        return b;
    }
};

// The constant NUL that reads as an empty text and an empty list.
extern const char empty_text[1];

}  // namespace qbsmtp
