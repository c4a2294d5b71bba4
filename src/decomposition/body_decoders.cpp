// body_decoders.cpp: quoted-printable (RFC 2045 6.7), base64 (RFC 2045 6.8)
// and uuencoded bodies, decoded from the input stream into the part file.
#include "decomposition/body_decoders.h"

#include <cstdint>
#include <cstring>

#include "decomposition/part_output.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"

namespace qbsmtp {

namespace {

constexpr int eof = Stream::eof;

bool is_hex_digit(int c) {
    return hex_value(c) >= 0;
}

// Gives bytes back to the input so that the next reads deliver them in
// their order: the last one goes back first.
void take_back(Stream& in, const unsigned char* bytes, std::size_t count) {
    while (count > 0) in.ungetc(bytes[--count]);
}

// Replaces each '=' and two hexadecimal digits by the byte they name,
// left to right; a decoded byte is not looked at again, so "=3D41" gives
// "=41". The new count.
std::size_t decode_escapes(unsigned char* line, std::size_t count) {
    std::size_t out = 0;
    for (std::size_t i = 0; i < count;) {
        if (line[i] == '=' && i + 2 < count && is_hex_digit(line[i + 1]) &&
            is_hex_digit(line[i + 2])) {
            line[out++] =
                static_cast<unsigned char>(hex_value(line[i + 1]) * 16 + hex_value(line[i + 2]));
            i += 3;
        } else {
            line[out++] = line[i++];
        }
    }
    return out;
}

// How much of a piece of an over-long line can be decoded now. Trailing
// white space, and an '=' with fewer than two bytes behind it, may mean
// something else once the line's end is seen (trailing blanks go, '=' may
// be a soft break or the start of an escape): they go back to the input
// and start the next piece. A piece of nothing else is decoded whole.
std::size_t decodable_part(const unsigned char* line, std::size_t count) {
    std::size_t keep = count;
    while (keep > 0 && line[keep - 1] <= ' ') --keep;
    if (keep >= 1 && line[keep - 1] == '=') {
        keep -= 1;
    } else if (keep >= 2 && line[keep - 2] == '=' && is_hex_digit(line[keep - 1])) {
        keep -= 2;
    }
    return keep > 0 ? keep : count;
}

// The 65 characters of the base64 alphabet; '=' has the value 64.
struct Base64Table {
    std::int8_t value[256];
    constexpr Base64Table() : value{} {
        constexpr char alphabet[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
        for (int i = 0; i < 256; ++i) value[i] = -1;
        for (int i = 0; i < 65; ++i) value[static_cast<unsigned char>(alphabet[i])] = i;
    }
};
constexpr Base64Table base64_table;
constexpr int base64_padding = 64;

// A uuencoded character's six bits; ' ' and '`' are both 0.
int uu_value(int c) {
    return (c - ' ') & 63;
}

}  // namespace

int hex_value(int digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    return -1;
}

void load_quoted_printable(ParseContext& context, const ContentInfo& parent) {
    static constexpr const char* who = "load_quoted_printable";
    Stream& in = *context.input;
    Stream& out = *context.output;

    char pattern[qp_line_size];
    pattern[0] = '-';
    pattern[1] = '-';
    const std::size_t boundary_length = std::strlen(parent.boundary);
    std::memcpy(pattern + 2, parent.boundary, boundary_length);
    const std::size_t pattern_length = boundary_length + 2;

    unsigned char line[qp_line_size];
    bool at_line_start = true;
    for (;;) {
        // A piece is a whole line (up to its LF or the end of the file) if
        // it fits; else qp_piece_size bytes of it.
        std::size_t n = 0;
        bool whole = false;
        while (n < qp_piece_size) {
            const int c = in.getc();
            if (c == eof) {
                whole = true;
                break;
            }
            line[n++] = static_cast<unsigned char>(c);
            if (c == '\n') {
                whole = true;
                break;
            }
        }
        if (!whole) {
            // One more byte still makes a whole line: the LF itself (the
            // line end goes before CR LF is added), or the end of the file.
            const int c = in.getc();
            if (c == '\n') {
                line[n++] = '\n';
                whole = true;
            } else if (c == eof) {
                whole = true;
            } else {
                in.ungetc(c);
            }
        }
        if (n == 0) return;

        if (at_line_start && n >= pattern_length &&
            std::memcmp(line, pattern, pattern_length) == 0) {
            // The boundary line stays for the walk's scan.
            take_back(in, line, n);
            return;
        }

        if (!whole) {
            const std::size_t keep = decodable_part(line, n);
            take_back(in, line + keep, n - keep);
            put_bytes(out, line, decode_escapes(line, keep), who);
            at_line_start = false;
            continue;
        }
        at_line_start = true;

        // Trailing white space is transport padding (RFC 2045 6.7 rule 3).
        while (n > 0 && line[n - 1] <= ' ') --n;
        if (n > 0 && line[n - 1] == '=') {
            --n;  // a soft line break
        } else {
            line[n++] = '\r';
            line[n++] = '\n';
        }
        put_bytes(out, line, decode_escapes(line, n), who);
    }
}

void load_base64(ParseContext& context) {
    static constexpr const char* who = "load_base64";
    Stream& in = *context.input;
    Stream& out = *context.output;

    enum LineState { in_line, after_cr, line_start, after_dash };
    LineState line_state = in_line;
    int count = 0;
    int padding = 0;
    std::uint32_t bits = 0;
    for (;;) {
        const int c = in.getc();
        if (c == eof) return;  // an incomplete group is dropped
        // Only CR LF makes a line start, and "--" there ends the body: the
        // boundary itself is left to the walk.
        if (c == '\r') {
            line_state = line_state == after_cr || line_state == after_dash ? in_line : after_cr;
            continue;
        }
        if (c == '\n') {
            line_state = line_state == after_cr ? line_start : in_line;
            continue;
        }
        if (c == '-') {
            if (line_state == after_dash) return;
            line_state = line_state == line_start ? after_dash : in_line;
            continue;
        }
        line_state = in_line;

        const int value = base64_table.value[c];
        if (value < 0) continue;
        if (value == base64_padding) {
            if (count < 2) continue;  // a group cannot end before its second character
            bits <<= 6;
            ++padding;
            ++count;
        } else if (padding != 0) {
            // Data behind an '=' takes the place of that '='.
            padding = 0;
            bits |= static_cast<std::uint32_t>(value);
        } else {
            bits = (bits << 6) | static_cast<std::uint32_t>(value);
            ++count;
        }
        if (count < 4) continue;

        put_byte(out, static_cast<int>((bits >> 16) & 0xFF), who);
        if (padding < 2) put_byte(out, static_cast<int>((bits >> 8) & 0xFF), who);
        if (padding < 1) put_byte(out, static_cast<int>(bits & 0xFF), who);
        count = 0;
        padding = 0;
        bits = 0;
    }
}

void load_uuencode(ParseContext& context) {
    static constexpr const char* who = "load_uuencode";
    Stream& in = *context.input;
    Stream& out = *context.output;

    char line[uu_line_size];
    for (;;) {
        if (in.gets(line, sizeof line) == nullptr) {
            event_reporter.report(event::uuencode_begin_missing, context.output_path.c_str(),
                                  context.message_path.c_str());
            throw 1;
        }
        if (std::strncmp(line, "begin", 5) == 0) break;
    }

    bool ended = false;
    for (;;) {
        if (in.gets(line, sizeof line) == nullptr) {
            event_reporter.report(event::uuencode_end_missing, context.output_path.c_str(),
                                  context.message_path.c_str());
            throw 1;
        }
        const std::size_t length = std::strlen(line);
        // The count is the first byte, whatever it is: a NUL there is a
        // count of 32 read from an empty line, not the end of the data.
        int n = uu_value(static_cast<unsigned char>(line[0]));
        if (n == 0) ended = true;  // and stays so: the rest up to "end" is dropped
        if (!ended) {
            // A count larger than the line holds reads the missing bytes
            // as 0, whatever an earlier line left in the buffer.
            auto at = [&](std::size_t position) {
                return position < length ? uu_value(static_cast<unsigned char>(line[position])) : 0;
            };
            for (std::size_t position = 1; n > 0; position += 4, n -= 3) {
                const int a = at(position);
                const int b = at(position + 1);
                const int c = at(position + 2);
                const int d = at(position + 3);
                const unsigned char bytes[3] = {
                    static_cast<unsigned char>(a << 2 | b >> 4),
                    static_cast<unsigned char>(b << 4 | c >> 2),
                    static_cast<unsigned char>(c << 6 | d),
                };
                put_bytes(out, bytes, n < 3 ? static_cast<std::size_t>(n) : 3, who);
            }
        }
        // Behind the decoding: an "end" line with no count-0 line before it
        // is first decoded as data.
        if (std::strncmp(line, "end", 3) == 0) return;
    }
}

}  // namespace qbsmtp
