// multi_string.cpp: the packed string list of the record.
//
// Blocks come from LocalAlloc (flags 0) because they cross into the host.
// The capacity of a block is LocalSize, never a count of our own, so a
// block the host handed in is treated exactly like one made here. A failed
// allocation never writes through a null block: append then leaves the
// list as it was, assign leaves it empty.
#include "frame/multi_string.h"

#include <cstring>

#include "platform/os.h"

namespace qbsmtp {

const char empty_text[1] = {'\0'};

namespace {

// What append allocates beyond its strict need, so a list grows in steps.
constexpr std::size_t growth_slack = 300;
// A list longer than this grows by half of its size instead: in steps of
// 300 bytes, a list of a million part files would be copied again every
// few entries, its time growing with the square of its length.
constexpr std::size_t proportional_growth_from = 64 * 1024;

std::size_t capacity_of(const char* block) {
    return block != nullptr ? os::LocalSize(const_cast<char*>(block)) : 0;
}

}  // namespace

MultiString::MultiString(std::size_t room) {
    block = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, room + 2));
    if (block != nullptr) block[0] = '\0';
}

void MultiString::clear() {
    if (block != nullptr) os::LocalFree(block);
    block = nullptr;
}

void MultiString::reserve(std::size_t size) {
    if (size <= capacity_of(block)) return;
    clear();
    block = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, size));
}

void MultiString::assign(const char* text) {
    if (text == nullptr || text[0] == '\0') {
        clear();
        return;
    }
    std::size_t length = std::strlen(text);
    reserve(length + 2);
    if (block == nullptr) return;
    std::memcpy(block, text, length + 1);
    block[length + 1] = '\0';
}

void MultiString::append(const char* text) {
    std::size_t used = 0;
    append(text, used);
}

void MultiString::append(const char* text, std::size_t& used) {
    if (text == nullptr || text[0] == '\0') return;
    std::size_t length = std::strlen(text);
    if (used == 0) used = byte_size();
    if (block == nullptr || capacity_of(block) <= length + used + 2) {
        std::size_t size = length + used + 2 + growth_slack;
        if (used > proportional_growth_from && size < used + used / 2 + length + 2)
            size = used + used / 2 + length + 2;
        char* grown = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, size));
        if (grown == nullptr) return;
        if (used > 0) std::memcpy(grown, block, used);
        clear();
        block = grown;
    }
    char* at = used > 0 ? block + used - 1 : block;
    std::memcpy(at, text, length + 1);
    at[length + 1] = '\0';
    used = static_cast<std::size_t>(at - block) + length + 2;
}

std::size_t MultiString::byte_size() const {
    if (block == nullptr || block[0] == '\0') return 0;
    const char* entry = block;
    while (*entry != '\0') entry += std::strlen(entry) + 1;
    return static_cast<std::size_t>(entry - block) + 1;
}

const char* MultiString::text() const {
    return block != nullptr ? block : empty_text;
}

const char* MultiString::next_entry(const char* entry) {
    if (entry == nullptr || entry[0] == '\0') return empty_text;
    return entry + std::strlen(entry) + 1;
}

}  // namespace qbsmtp
