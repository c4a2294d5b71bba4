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

// Copies count bytes from `from` to `to`, replacing each '=' and two
// hexadecimal digits by the byte they name, left to right; a decoded byte
// is not looked at again, so "=3D41" gives "=41". `to` may be `from` (the
// result is never longer). The count written.
std::size_t decode_escapes(const unsigned char* from, std::size_t count, unsigned char* to) {
    std::size_t out = 0;
    std::size_t i = 0;
    while (i < count) {
        const void* equals = std::memchr(from + i, '=', count - i);
        const std::size_t run =
            equals != nullptr
                ? static_cast<std::size_t>(static_cast<const unsigned char*>(equals) - (from + i))
                : count - i;
        std::memmove(to + out, from + i, run);
        out += run;
        i += run;
        if (i == count) break;
        if (i + 2 < count && is_hex_digit(from[i + 1]) && is_hex_digit(from[i + 2])) {
            to[out++] =
                static_cast<unsigned char>(hex_value(from[i + 1]) * 16 + hex_value(from[i + 2]));
            i += 3;
        } else {
            to[out++] = from[i++];
        }
    }
    return out;
}

std::size_t decode_escapes(unsigned char* line, std::size_t count) {
    return decode_escapes(line, count, line);
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

// For the fast path: a data character's six bits already in their place
// in a group's 24 bits, one table for each of the four places; any other
// byte ('=' included) sets bit 24 instead.
struct GroupTables {
    std::uint32_t place[4][256];
    constexpr GroupTables() : place{} {
        for (int c = 0; c < 256; ++c) {
            const int value = base64_table.value[c];
            for (int i = 0; i < 4; ++i) {
                place[i][c] = value >= 0 && value < base64_padding
                                  ? static_cast<std::uint32_t>(value) << (18 - 6 * i)
                                  : std::uint32_t{1} << 24;
            }
        }
    }
};
constexpr GroupTables group_tables;

// Decodes whole groups of four data characters ('=' is none) from the
// input's buffer straight into the output's, as long as both hold one:
// what the byte loop does with such a group when no group is under way.
// Everything else (line ends, dashes, pads, other bytes, a group split by
// the end of a buffer or by a full output buffer) is left to it. The
// number of groups decoded.
std::size_t decode_groups(Stream& in, Stream& out) {
    const auto* from = reinterpret_cast<const unsigned char*>(in.read_view());
    auto* to = reinterpret_cast<unsigned char*>(out.write_view());
    std::size_t groups = in.read_view_size() / 4;
    const std::size_t room = out.write_view_size() / 3;
    if (room < groups) groups = room;
    std::size_t done = 0;
    for (; done < groups; ++done, from += 4, to += 3) {
        const std::uint32_t bits = group_tables.place[0][from[0]] | group_tables.place[1][from[1]] |
                                   group_tables.place[2][from[2]] | group_tables.place[3][from[3]];
        if (bits >> 24 != 0) break;
        to[0] = static_cast<unsigned char>(bits >> 16);
        to[1] = static_cast<unsigned char>(bits >> 8);
        to[2] = static_cast<unsigned char>(bits);
    }
    in.consume(done * 4);
    out.produce(done * 3);
    return done;
}

// A uuencoded character's six bits; ' ' and '`' are both 0.
int uu_value(int c) {
    return (c - ' ') & 63;
}

// What decode_held_line did.
enum class HeldLine { decoded, boundary, not_held };

// Decodes the next line straight from the input's buffer if the buffer
// holds it whole with its LF, within the qp_line_size - 1 bytes that the
// byte loop below takes in as one piece; it then does with it what that
// loop does with such a piece. A boundary line is left unread.
HeldLine decode_held_line(Stream& in, Stream& out, bool at_line_start, const char* pattern,
                          std::size_t pattern_length, const char* who) {
    const auto* line = reinterpret_cast<const unsigned char*>(in.read_view());
    std::size_t held = in.read_view_size();
    if (held > qp_line_size - 1) held = qp_line_size - 1;
    const void* lf = std::memchr(line, '\n', held);
    if (lf == nullptr) return HeldLine::not_held;
    const std::size_t n =
        static_cast<std::size_t>(static_cast<const unsigned char*>(lf) - line) + 1;
    if (at_line_start && n >= pattern_length && line[0] == '-' &&
        std::memcmp(line, pattern, pattern_length) == 0)
        return HeldLine::boundary;

    std::size_t text = n;
    while (text > 0 && line[text - 1] <= ' ') --text;
    const bool soft_break = text > 0 && line[text - 1] == '=';
    if (soft_break) --text;
    // Decoded straight into the output buffer if it has room for the most
    // the line can give; else as the byte loop does, so that the buffer is
    // flushed where it would be.
    auto* room = reinterpret_cast<unsigned char*>(out.write_view());
    unsigned char local[qp_line_size];
    const bool direct = out.write_view_size() >= text + 2;
    unsigned char* to = direct ? room : local;
    std::size_t decoded = decode_escapes(line, text, to);
    if (!soft_break) {
        to[decoded++] = '\r';
        to[decoded++] = '\n';
    }
    if (direct)
        out.produce(decoded);
    else
        put_bytes(out, local, decoded, who);
    in.consume(n);
    return HeldLine::decoded;
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
        const HeldLine held =
            decode_held_line(in, out, at_line_start, pattern, pattern_length, who);
        if (held == HeldLine::boundary) return;
        if (held == HeldLine::decoded) {
            at_line_start = true;
            continue;
        }
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
        // A data character ends any line state, as in the loop below; with
        // no group under way, count is 0 and so is padding.
        if (count == 0 && decode_groups(in, out) > 0) line_state = in_line;
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
