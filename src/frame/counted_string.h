// counted_string.h: CountedString, the module's owned text.
//
// length (bytes without the NUL) and text (a LocalAlloc block with flags 0,
// or null). The empty value is length 0 and a null text; a value may also
// hold length 0 with an allocated empty text, so readers treat both alike
// (c_str() never gives null). Assigning a text of positive length keeps the
// block when the new length is not above the length held; otherwise the
// block is freed and length + 1 bytes are allocated. A failed allocation
// leaves the value empty. Assigning null or a length of 0 frees and empties.
#pragma once

#include <cstdint>

namespace qbsmtp {

class CountedString {
  public:
    std::int32_t length = 0;  // bytes of text without the NUL
    char* text = nullptr;     // LocalAlloc block, or null

    CountedString() = default;
    explicit CountedString(const char* source);
    CountedString(const CountedString& other);
    CountedString& operator=(const CountedString& other);
    CountedString& operator=(const char* source);
    ~CountedString();

    // Copies count bytes of source and a NUL.
    void assign(const char* source, std::int32_t count);
    // Frees the block; the value is empty.
    void clear();
    // Takes over a LocalAlloc block (FormatMessageA's result) as it is.
    void adopt(char* block, std::int32_t block_length);
    // Gives the block to the caller (a MailRecord field) and empties the value.
    char* release();

    const char* c_str() const { return text != nullptr ? text : ""; }
    bool empty() const { return length == 0 || text == nullptr || text[0] == '\0'; }
};

}  // namespace qbsmtp
