// header_scanner.cpp: the readers of field names, field ends and tokens.
#include "decomposition/header_scanner.h"

#include <cstring>

namespace qbsmtp {

namespace {

constexpr int eof = Stream::eof;
constexpr int cr = '\r';
constexpr int lf = '\n';

// Appends bytes to a capture, cutting at its size so that the text and
// its NUL always fit; the NUL is written at the end by finish().
struct Capture {
    char* buffer;
    std::size_t limit;  // bytes that fit beside the NUL
    std::size_t used = 0;

    bool active() const { return buffer != nullptr; }
    void add(char c) {
        if (buffer != nullptr && used < limit) buffer[used++] = c;
    }
    void add(const char* text) {
        for (; *text != '\0'; ++text) add(*text);
    }
    void finish() {
        if (buffer != nullptr) buffer[used] = '\0';
    }
};

}  // namespace

bool is_token_delimiter(int c) {
    // The tspecials of RFC 2045; a dot is none.
    static constexpr char delimiters[] = "()<>@,;:\\\"/[]?=";
    return c > 0 && std::memchr(delimiters, c, sizeof delimiters - 1) != nullptr;
}

int read_field_name(ParseContext& context, char* name, std::size_t size) {
    Stream& in = *context.input;
    if (size == 0) return 0;
    const std::size_t limit = size - 1;
    std::size_t position = 0;
    for (;;) {
        int c = in.getc();
        if (c == eof) return 0;
        // TAB is a control byte here, so a continuation line never reads
        // as a name.
        if (is_control_byte(c)) {
            in.ungetc(c);
            return 0;
        }
        if (c == ' ' || c == ':') {
            name[position] = '\0';
            return 1;
        }
        // The last place takes each further byte of a long name in turn;
        // the NUL finally overwrites it.
        name[position] = ascii_upper(static_cast<char>(c));
        if (position < limit) ++position;
    }
}

int more_in_field(ParseContext& context) {
    Stream& in = *context.input;
    enum State { plain, after_cr, after_crlf };
    State state = plain;
    for (;;) {
        int c = in.getc();
        if (c == eof) return 0;
        switch (state) {
            case plain:
                if (is_blank_byte(c) || c == lf) break;
                if (c == cr) {
                    state = after_cr;
                    break;
                }
                in.ungetc(c);
                return 1;
            case after_cr:
                if (is_blank_byte(c) || c == cr) {
                    state = plain;
                    break;
                }
                if (c == lf) {
                    state = after_crlf;
                    break;
                }
                in.ungetc(c);
                return 1;
            case after_crlf:
                // RFC 822 folding: CR LF and a blank continue the field.
                if (is_blank_byte(c)) {
                    state = plain;
                    break;
                }
                in.ungetc(c);
                return 0;
        }
    }
}

void skip_field(ParseContext& context, char* capture, std::size_t capture_size) {
    Stream& in = *context.input;
    Capture text{capture_size > 0 ? capture : nullptr, capture_size > 0 ? capture_size - 1 : 0};
    bool after_cr_seen = false;
    for (;;) {
        int c = in.getc();
        if (c == eof) {
            if (after_cr_seen) text.add('\r');
            break;
        }
        if (after_cr_seen && c == lf) {
            c = in.getc();
            if (!is_blank_byte(c)) {
                if (c != eof) in.ungetc(c);
                break;
            }
            text.add("\r\n");
        }
        after_cr_seen = c == cr;
        // A ';' and a NUL never reach the text (the NUL would end it).
        if (c != ';' && c != cr && c != '\0') text.add(static_cast<char>(c));
    }
    text.finish();
}

int read_token(ParseContext& context, char* token, std::int32_t size, bool upper) {
    Stream& in = *context.input;
    if (size < 2) return token_none;
    const std::int32_t limit = size - 1;
    std::int32_t position = 0;
    bool quoted = false;
    bool escaped = false;
    for (;;) {
        int c = in.getc();
        if (c == eof) {
            // Nothing usable, but the buffer is never left unterminated.
            token[position] = '\0';
            return token_none;
        }
        if (position == 0 && !escaped && !quoted && c == '"') {
            quoted = true;
            continue;
        }
        if (quoted && !escaped) {
            if (c == cr) {
                // A quoted string ends with its line (RFC 822 quoted-string).
                in.ungetc(c);
                token[0] = '\0';
                return token_none;
            }
            if (c == '"') {
                token[position] = '\0';
                return token_quoted;
            }
            if (c == '\\') {
                escaped = true;
                continue;
            }
        } else if (!quoted) {
            if (is_token_delimiter(c)) {
                if (position == 0) {
                    token[0] = static_cast<char>(c);
                    token[1] = '\0';
                    return token_delimiter;
                }
                in.ungetc(c);
                token[position] = '\0';
                return token_plain;
            }
            if (is_control_byte(c) || is_space_byte(c)) {
                in.ungetc(c);
                token[position] = '\0';
                return token_plain;
            }
        }
        token[position] = upper ? ascii_upper(static_cast<char>(c)) : static_cast<char>(c);
        escaped = false;
        if (position < limit) ++position;
    }
}

void eat_crlf(ParseContext& context) {
    Stream& in = *context.input;
    int c = in.getc();
    if (c == eof) return;
    if (c != cr) {
        in.ungetc(c);
        return;
    }
    c = in.getc();
    if (c == eof) return;
    if (c != lf) in.ungetc(c);
}

}  // namespace qbsmtp
