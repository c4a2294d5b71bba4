// counted_string.cpp: CountedString, owned text in LocalAlloc blocks.
//
// Freeing a block keeps the thread's last error: callers of the path
// primitives read it after their temporaries are gone.

#include "frame/counted_string.h"

#include <cstring>

#include "platform/os.h"

namespace qbsmtp {

CountedString::CountedString(const char* source) {
    *this = source;
}

CountedString::CountedString(const CountedString& other) {
    assign(other.text, other.length);
}

CountedString& CountedString::operator=(const CountedString& other) {
    if (this != &other) assign(other.text, other.length);
    return *this;
}

CountedString& CountedString::operator=(const char* source) {
    if (source == nullptr) {
        clear();
    } else {
        assign(source, static_cast<std::int32_t>(std::strlen(source)));
    }
    return *this;
}

CountedString::~CountedString() {
    clear();
}

void CountedString::assign(const char* source, std::int32_t count) {
    if (source == nullptr || count <= 0) {
        clear();
        return;
    }
    if (text != nullptr && count <= length) {
        // The block is big enough; source may lie inside it.
        std::memmove(text, source, static_cast<std::size_t>(count));
        text[count] = '\0';
        length = count;
        return;
    }
    auto* block =
        static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, static_cast<std::size_t>(count) + 1));
    if (block != nullptr) {
        std::memcpy(block, source, static_cast<std::size_t>(count));
        block[count] = '\0';
    }
    clear();
    text = block;
    length = block != nullptr ? count : 0;
}

void CountedString::clear() {
    if (text != nullptr) {
        const os::DWORD saved = os::GetLastError();
        os::LocalFree(text);
        os::SetLastError(saved);
    }
    text = nullptr;
    length = 0;
}

void CountedString::adopt(char* block, std::int32_t block_length) {
    clear();
    text = block;
    length = block != nullptr && block_length > 0 ? block_length : 0;
}

char* CountedString::release() {
    char* block = text;
    text = nullptr;
    length = 0;
    return block;
}

}  // namespace qbsmtp
