// header_scanner.h: the lexical readers of a message's header section.
//
// They read the input stream of a ParseContext byte by byte, with no line
// buffer, and push back at most one byte. Where each leaves the stream is
// its contract, since the next reader starts exactly there:
//   read_field_name  1: behind the SP or colon that ended the name;
//                    0: on the control byte that stopped it, or at the end.
//   more_in_field    1: on the first byte of more content;
//                    0: on the first byte of the next line, or at the end.
//   skip_field       on the first byte of the line behind the field.
//   read_token       behind the token; the byte that ended it is pushed
//                    back, except a closing quote.
//   eat_crlf         behind the CR LF of the blank line, if there is one.
// Character classes are plain ASCII whatever the locale; bytes from 128 up
// are neither letters, blanks nor control bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "decomposition/parse_context.h"

namespace qbsmtp {

// Results of read_token.
inline constexpr int token_none = 0;       // nothing usable; see read_token
inline constexpr int token_plain = 1;      // a plain token (maybe empty)
inline constexpr int token_quoted = 2;     // the content of a quoted string
inline constexpr int token_delimiter = 3;  // one tspecial byte

// Reads a field name, upper-cased, into name (size bytes with the NUL;
// a longer name is consumed and cut). 1 if a name ended at SP or colon.
int read_field_name(ParseContext& context, char* name, std::size_t size);
// Skips blanks, lone LFs and folds: 1 if the field goes on, 0 if it ended.
int more_in_field(ParseContext& context);
// Runs to the end of the field. With a capture buffer of capture_size
// bytes, the field's text goes there (folds kept as CR LF and blank, ';'
// and NUL dropped), cut to capture_size - 1 bytes and NUL-terminated.
void skip_field(ParseContext& context, char* capture = nullptr, std::size_t capture_size = 0);
// Reads one token of a structured field (RFC 2045 tspecials delimit) into
// token, at most size - 1 bytes, upper-cased if upper is set.
int read_token(ParseContext& context, char* token, std::int32_t size, bool upper);
// Eats one CR LF, or a CR alone; anything else stays.
void eat_crlf(ParseContext& context);

// The ASCII classes the readers use, for the field handlers too.
inline bool is_control_byte(int c) {
    return (c >= 0 && c < 32) || c == 127;
}
inline bool is_space_byte(int c) {
    return (c >= 9 && c <= 13) || c == ' ';
}
inline bool is_blank_byte(int c) {
    return c == ' ' || c == '\t';
}
inline char ascii_upper(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
}
// The fifteen tspecials of RFC 2045.
bool is_token_delimiter(int c);

}  // namespace qbsmtp
