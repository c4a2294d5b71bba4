// mail_record.cpp: the allocation rules of the record's fields.
#include "decomposition/mail_record.h"

#include <cstring>

#include "frame/multi_string.h"
#include "platform/os.h"

namespace qbsmtp {

void set_record_text(std::int32_t& length, char*& text, const char* source, std::int32_t count) {
    if (source == nullptr || count <= 0) {
        if (text != nullptr) os::LocalFree(text);
        text = nullptr;
        length = 0;
        return;
    }
    char* target = text;
    // The length held decides; the block's real size guards against a
    // record whose length says more than its block holds.
    if (text == nullptr || count > length ||
        os::LocalSize(text) <= static_cast<std::size_t>(count)) {
        // The new block is filled before the old one goes, so a source
        // inside the old text stays readable.
        target =
            static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, static_cast<std::size_t>(count) + 1));
    }
    if (target == nullptr) {
        if (text != nullptr) os::LocalFree(text);
        text = nullptr;
        length = 0;
        return;
    }
    std::memmove(target, source, static_cast<std::size_t>(count));
    target[count] = '\0';
    if (target != text && text != nullptr) os::LocalFree(text);
    text = target;
    length = count;
}

void set_record_text(std::int32_t& length, char*& text, const char* source) {
    std::int32_t count = source != nullptr ? static_cast<std::int32_t>(std::strlen(source)) : 0;
    set_record_text(length, text, source, count);
}

void set_record_text(std::int32_t& length, char*& text, const CountedString& source) {
    set_record_text(length, text, source.text, source.text != nullptr ? source.length : 0);
}

void append_record_list(char*& list, const char* entry) {
    std::size_t used = 0;  // not known: the list is walked once
    append_record_list(list, entry, used);
}

void append_record_list(char*& list, const char* entry, std::size_t& used) {
    MultiString value;
    value.block = list;
    value.append(entry, used);
    list = value.release();
}

void clear_record_list(char*& list) {
    MultiString value;
    value.block = list;
    value.clear();
    list = nullptr;
}

}  // namespace qbsmtp
