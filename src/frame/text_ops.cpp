// text_ops.cpp: the debug log, message texts, Winsock error texts and the
// bounded string helpers.
//
// Every text written here stays inside the caller's buffer: the formats go
// through snprintf-style bounds, and the helpers take the buffer's size.

#include "frame/text_ops.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "platform/os.h"

namespace qbsmtp {

namespace {

constexpr std::size_t debug_buffer_size = 512;
constexpr std::size_t registry_failure_buffer_size = 1024;
constexpr std::size_t string_resource_size = 500;
constexpr std::uint32_t module_string_bit = 0x20000000;
constexpr std::uint32_t winsock_prefix_string = 1;

}  // namespace

void log_debug(const char* format, ...) {
    if (debug_log == 0) return;
    char text[debug_buffer_size];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    event_reporter.report(event::debug_text, text);
}

int log_registry_failure(const char* key, std::uint32_t code) {
    char text[registry_failure_buffer_size];
    std::snprintf(text, sizeof text, "RegPutValue error %x on key %s", code,
                  key != nullptr ? key : "<>");
    event_reporter.report(event::debug_text, text);
    return 1;
}

void load_message(CountedString& text, std::uint32_t id) {
    text.clear();
    const os::DWORD saved = os::GetLastError();

    char* block = nullptr;
    os::DWORD length = 0;
    if ((id & module_string_bit) != 0) {
        const os::HMODULE module =
            module_handle != nullptr ? module_handle : os::GetModuleHandleA(nullptr);
        char string[string_resource_size];
        string[0] = '\0';
        if (os::LoadStringA(module, id & 0xFFFF, string, sizeof string) <= 0) string[0] = '\0';
        length = os::FormatMessageA(os::FORMAT_MESSAGE_IGNORE_INSERTS |
                                        os::FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                        os::FORMAT_MESSAGE_FROM_STRING,
                                    string, 0, 0, reinterpret_cast<char*>(&block), 1, nullptr);
    } else {
        length = os::FormatMessageA(
            os::FORMAT_MESSAGE_IGNORE_INSERTS | os::FORMAT_MESSAGE_ALLOCATE_BUFFER |
                os::FORMAT_MESSAGE_FROM_SYSTEM,
            nullptr, id, 0x400, reinterpret_cast<char*>(&block), 1, nullptr);
    }
    if (length >= 1 && block != nullptr) {
        text.adopt(block, static_cast<std::int32_t>(length));
    } else {
        if (block != nullptr) os::LocalFree(block);
        char fallback[16];
        std::snprintf(fallback, sizeof fallback, "Error %08X", id);
        text = fallback;
    }
    os::SetLastError(saved);
}

char* winsock_error_text(char* buffer, std::size_t size) {
    const int code = os::WSAGetLastError();
    CountedString text;
    load_message(text, module_string_bit | winsock_prefix_string);
    compose_limited(buffer, text.c_str(), nullptr, size);

    const WinsockCodeString* row = nullptr;
    for (std::size_t i = 0; i < winsock_code_count; ++i) {
        if (winsock_code_table[i].code == static_cast<std::uint32_t>(code)) {
            row = &winsock_code_table[i];
            break;
        }
    }
    load_message(text, row != nullptr ? (row->string_number | module_string_bit)
                                      : static_cast<std::uint32_t>(code));
    return append_limited(buffer, text.c_str(), size);
}

char* append_limited(char* buffer, const char* text, std::size_t size) {
    if (text == nullptr || size == 0) return buffer;
    const std::size_t held = strnlen(buffer, size);
    if (held >= size) return buffer;
    const std::size_t room = size - held - 1;
    const std::size_t count = strnlen(text, room);
    std::memcpy(buffer + held, text, count);
    buffer[held + count] = '\0';
    return buffer;
}

char* compose_limited(char* buffer, const char* first, const char* second, std::size_t size) {
    if (size == 0) return buffer;
    buffer[0] = '\0';
    append_limited(buffer, first, size);
    if (second != nullptr) append_limited(buffer, second, size);
    return buffer;
}

char* format_unsigned(char* buffer, std::uint32_t number) {
    // Ten digits hold any 32-bit number.
    const auto result = std::to_chars(buffer, buffer + 10, number);
    *result.ptr = '\0';
    return buffer;
}

}  // namespace qbsmtp
