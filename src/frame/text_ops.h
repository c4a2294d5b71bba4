// text_ops.h: the debug log, message texts, Winsock error texts and the
// bounded string helpers of the frame.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/counted_string.h"

namespace qbsmtp {

// Reports the formatted text as event 0x400051A3 when DebugLog is set; the
// text is cut at 511 bytes.
void log_debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Reports "RegPutValue error %x on key %s" as event 0x400051A3; always 1.
int log_registry_failure(const char* key, std::uint32_t code);
// Fills text with a message: bit 0x20000000 of id picks a string of the
// module, else the system's text for id; "Error %08X" when there is none.
// Keeps the thread's last error.
void load_message(CountedString& text, std::uint32_t id);
// "errore winsock: " and the text of WSAGetLastError, within size bytes.
char* winsock_error_text(char* buffer, std::size_t size);
// Appends text so that buffer stays within size bytes with its NUL.
char* append_limited(char* buffer, const char* text, std::size_t size);
// Copies first (or clears), then appends second, within size; keeps the
// thread's last error.
char* compose_limited(char* buffer, const char* first, const char* second, std::size_t size);
// The number as "%u".
char* format_unsigned(char* buffer, std::uint32_t number);

}  // namespace qbsmtp
