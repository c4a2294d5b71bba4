// decoders_fuzz.cpp: the three body decoders (quoted-printable, base64,
// uuencode) on arbitrary bytes, and on the output of encoders written here.
//
// The first byte picks the mode and the parent boundary; the rest is either
// the body itself or data that an encoder below turns into a body:
//   raw bodies: each decoder must end exactly where a model of its
//     documented end rule says (the bytes left in the stream are the
//     input's tail) and write what a model of its decoding says;
//   round trips: random data, encoded by an independent encoder (standard
//     base64, quoted-printable, uuencode) and followed by a boundary or an
//     end line and some trailer, must decode back byte for byte.
// A missing begin or end line of a uuencoded body is the one expected
// throw (the integer 1). The scratch directory is removed after every
// input: libFuzzer may end the process without running exit handlers.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "decomposition/body_decoders.h"
#include "decomposition/content_header.h"
#include "decomposition/parse_context.h"
#include "frame/stream.h"

#include "fuzz_support.h"
namespace {

namespace fs = std::filesystem;
using namespace qbsmtp;

// Boundaries of the enclosing level: none (a single part), short, long,
// and one that starts like a boundary line itself.
constexpr const char* boundaries[] = {"", "b", "----=_NextPart_000_0012_01C6A1B2.3C4D5E60",
                                      "--dashes"};

struct Scratch {
    fs::path root;
    fs::path in;
    fs::path out;
};

const Scratch& scratch() {
    static const Scratch made = [] {
        Scratch s;
        s.root = fuzz::scratch_path("qbsmtp_decoders_fuzz");
        s.in = s.root / "body.in";
        s.out = s.root / "part.out";
        return s;
    }();
    return made;
}

enum class Decoder { quoted_printable, base64, uuencode };

struct Outcome {
    bool threw = false;
    std::string output;  // the part file
    std::string rest;    // what the decoder left in the input stream
};

Outcome run_decoder(Decoder decoder, const std::string& body, const char* boundary) {
    const Scratch& s = scratch();
    fs::create_directories(s.root);
    {
        std::ofstream file(s.in, std::ios::binary | std::ios::trunc);
        file.write(body.data(), static_cast<std::streamsize>(body.size()));
    }
    ParseContext context;
    context.input = Stream::open(s.in.c_str(), "rb");
    context.output = Stream::open(s.out.c_str(), "wb");
    FUZZ_CHECK(context.input != nullptr && context.output != nullptr);
    ContentInfo parent{};
    std::snprintf(parent.boundary, sizeof parent.boundary, "%s", boundary);

    Outcome outcome;
    try {
        switch (decoder) {
            case Decoder::quoted_printable:
                load_quoted_printable(context, parent);
                break;
            case Decoder::base64:
                load_base64(context);
                break;
            case Decoder::uuencode:
                load_uuencode(context);
                break;
        }
    } catch (int thrown) {
        FUZZ_CHECK(thrown == 1);
        outcome.threw = true;
    }
    for (int c; (c = context.input->getc()) != Stream::eof;) outcome.rest += static_cast<char>(c);
    context.input->close();
    context.input = nullptr;
    FUZZ_CHECK(context.output->close() == 0);
    context.output = nullptr;
    std::ifstream file(s.out, std::ios::binary);
    outcome.output.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return outcome;
}

// ---- Models of the documented decoding ------------------------------------

struct Expected {
    bool threw = false;
    std::size_t end = 0;  // where the input is left
    std::string output;
    bool output_known = true;
};

int hex_digit(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const unsigned char lower = static_cast<unsigned char>(c | 0x20);
    if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
    return -1;
}

// Quoted-printable as if the line buffer had no bound: lines end behind LF
// or at the end; a line that begins with "--" and the boundary ends the
// body in front of it. Long lines are read in pieces by the module, which
// decodes them alike except for a run of white space that fills a whole
// piece (docs/decisions.md, "Quoted-printable lines longer than the
// buffer"); for inputs with such runs only the end position is compared.
Expected model_quoted_printable(std::string_view body, std::string_view boundary) {
    const std::string pattern = "--" + std::string(boundary);
    Expected e;
    std::size_t pos = 0;
    while (pos < body.size()) {
        const std::size_t lf = body.find('\n', pos);
        const std::size_t next = lf == std::string_view::npos ? body.size() : lf + 1;
        std::string line(body.substr(pos, next - pos));
        if (line.compare(0, pattern.size(), pattern) == 0 && line.size() >= pattern.size()) break;
        if (line.size() > 90) {
            std::size_t run = 0;
            for (unsigned char c : line) {
                run = c <= ' ' ? run + 1 : 0;
                if (run >= 90) e.output_known = false;
            }
        }
        pos = next;
        while (!line.empty() && static_cast<unsigned char>(line.back()) <= ' ') line.pop_back();
        if (!line.empty() && line.back() == '=')
            line.pop_back();
        else
            line += "\r\n";
        for (std::size_t i = 0; i < line.size();) {
            if (line[i] == '=' && i + 2 < line.size() &&
                hex_digit(static_cast<unsigned char>(line[i + 1])) >= 0 &&
                hex_digit(static_cast<unsigned char>(line[i + 2])) >= 0) {
                e.output +=
                    static_cast<char>(hex_digit(static_cast<unsigned char>(line[i + 1])) * 16 +
                                      hex_digit(static_cast<unsigned char>(line[i + 2])));
                i += 3;
            } else {
                e.output += line[i++];
            }
        }
    }
    e.end = pos;
    return e;
}

// Base64 by the documented line states (0 in a line, 1 behind CR, 2 at a
// line start behind CR LF, 3 behind a '-' there) and group rules.
Expected model_base64(std::string_view body) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    Expected e;
    int state = 0;
    int count = 0;
    int padding = 0;
    std::uint32_t bits = 0;
    e.end = body.size();
    for (std::size_t i = 0; i < body.size(); ++i) {
        const char c = body[i];
        if (c == '\r') {
            state = state == 0 || state == 2 ? 1 : 0;
            continue;
        }
        if (c == '\n') {
            state = state == 1 ? 2 : 0;
            continue;
        }
        if (c == '-') {
            if (state == 3) {
                e.end = i + 1;
                break;
            }
            state = state == 2 ? 3 : 0;
            continue;
        }
        state = 0;
        const std::size_t value = alphabet.find(c);
        if (value == std::string_view::npos) continue;
        if (value == 64) {
            if (count < 2) continue;
            bits <<= 6;
            ++padding;
            ++count;
        } else if (padding != 0) {
            padding = 0;
            bits |= static_cast<std::uint32_t>(value);
        } else {
            bits = bits << 6 | static_cast<std::uint32_t>(value);
            ++count;
        }
        if (count < 4) continue;
        e.output += static_cast<char>(bits >> 16 & 0xFF);
        if (padding < 2) e.output += static_cast<char>(bits >> 8 & 0xFF);
        if (padding < 1) e.output += static_cast<char>(bits & 0xFF);
        count = padding = 0;
        bits = 0;
    }
    return e;
}

// Uuencode over the pieces that a 512-byte line buffer gives (up to 511
// bytes, ending behind an LF), each seen as a C text: what stands behind a
// NUL is not part of the line, and positions beyond the line count 0
// (docs/decisions.md, "Uuencode count beyond the line"). The count is the
// first byte of the piece, whatever it is.
Expected model_uuencode(std::string_view body) {
    Expected e;
    std::size_t pos = 0;
    int first = 0;
    auto next_piece = [&](std::string_view& piece) {
        if (pos >= body.size()) return false;
        std::size_t n = 0;
        while (pos + n < body.size() && n < 511) {
            if (body[pos + n++] == '\n') break;
        }
        piece = body.substr(pos, n);
        first = static_cast<unsigned char>(piece[0]);
        pos += n;
        const std::size_t nul = piece.find('\0');
        if (nul != std::string_view::npos) piece = piece.substr(0, nul);
        return true;
    };
    std::string_view line;
    for (;;) {
        if (!next_piece(line)) {
            e.threw = true;
            e.end = body.size();
            return e;
        }
        if (line.substr(0, 5) == "begin") break;
    }
    bool ended = false;
    for (;;) {
        if (!next_piece(line)) {
            e.threw = true;
            e.end = body.size();
            return e;
        }
        auto value = [&](std::size_t i) {
            return i < line.size() ? (static_cast<unsigned char>(line[i]) - 32) & 63 : 0;
        };
        int n = (first - 32) & 63;
        if (n == 0) ended = true;
        for (std::size_t i = 1; !ended && n > 0; i += 4, n -= 3) {
            const int a = value(i), b = value(i + 1), c = value(i + 2), d = value(i + 3);
            const unsigned char bytes[3] = {static_cast<unsigned char>(a << 2 | b >> 4),
                                            static_cast<unsigned char>(b << 4 | c >> 2),
                                            static_cast<unsigned char>(c << 6 | d)};
            e.output.append(reinterpret_cast<const char*>(bytes), n < 3 ? n : 3);
        }
        if (line.substr(0, 3) == "end") break;
    }
    e.end = pos;
    return e;
}

// ---- Independent encoders ---------------------------------------------------

std::string encode_base64(std::string_view data, std::size_t line_length) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string chars;
    for (std::size_t i = 0; i < data.size(); i += 3) {
        const std::size_t n = data.size() - i < 3 ? data.size() - i : 3;
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = group << 8 | (k < n ? static_cast<unsigned char>(data[i + k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k)
            chars += k <= n ? alphabet[group >> (18 - 6 * k) & 63] : '=';
    }
    std::string out;
    for (std::size_t i = 0; i < chars.size(); i += line_length)
        out.append(chars, i, line_length).append("\r\n");
    return out;
}

// Text-style quoted-printable: CR LF in the data is a hard line break,
// everything else that is not plain printable ASCII is escaped, so is
// white space before a line end and a '-' that would begin a line, and
// lines are cut by soft breaks at line_length. Data that does not end in
// CR LF ends in a soft break, so nothing is added behind it.
std::string encode_quoted_printable(std::string_view data, std::size_t line_length) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    std::size_t column = 0;
    bool ended_hard = false;
    for (std::size_t i = 0; i < data.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if (c == '\r' && i + 1 < data.size() && data[i + 1] == '\n') {
            out += "\r\n";
            column = 0;
            ++i;
            ended_hard = true;
            continue;
        }
        ended_hard = false;
        const bool before_break =
            i + 1 == data.size() ||
            (data[i + 1] == '\r' && i + 2 < data.size() && data[i + 2] == '\n');
        auto is_plain = [&] {
            return (c >= 33 && c <= 126 && c != '=' && !(c == '-' && column == 0)) ||
                   ((c == ' ' || c == '\t') && !before_break);
        };
        bool plain = is_plain();
        if (column + (plain ? 1 : 3) + 1 > line_length) {
            out += "=\r\n";
            column = 0;
            plain = is_plain();
        }
        const std::size_t width = plain ? 1 : 3;
        if (plain) {
            out += static_cast<char>(c);
        } else {
            out += '=';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
        column += width;
    }
    if (!ended_hard && !data.empty()) out += "=\r\n";
    return out;
}

std::string encode_uuencode(std::string_view data, std::string_view line_end) {
    auto character = [](unsigned value) {
        return static_cast<char>(value == 0 ? '`' : value + 32);
    };
    std::string out = "begin 644 data.bin";
    out += line_end;
    for (std::size_t i = 0; i < data.size(); i += 45) {
        const std::size_t n = data.size() - i < 45 ? data.size() - i : 45;
        out += character(static_cast<unsigned>(n));
        for (std::size_t k = 0; k < n; k += 3) {
            std::uint32_t group = 0;
            for (std::size_t j = 0; j < 3; ++j)
                group = group << 8 | (k + j < n ? static_cast<unsigned char>(data[i + k + j]) : 0u);
            for (int j = 3; j >= 0; --j) out += character(group >> (6 * j) & 63);
        }
        out += line_end;
    }
    out += '`';
    out += line_end;
    out += "end";
    out += line_end;
    return out;
}

void check_raw(Decoder decoder, const std::string& body, const char* boundary) {
    const Outcome got = run_decoder(decoder, body, boundary);
    Expected want;
    switch (decoder) {
        case Decoder::quoted_printable:
            want = model_quoted_printable(body, boundary);
            break;
        case Decoder::base64:
            want = model_base64(body);
            break;
        case Decoder::uuencode:
            want = model_uuencode(body);
            break;
    }
    FUZZ_CHECK(got.threw == want.threw);
    FUZZ_CHECK(got.rest == std::string_view(body).substr(want.end));
    if (want.output_known) FUZZ_CHECK(got.output == want.output);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 || size > 64 * 1024) return 0;
    const unsigned mode = data[0] % 6;
    const char* boundary = boundaries[(data[0] >> 3) % 4];
    const std::size_t line_length = 4 + data[1] % 160;
    const std::string rest(reinterpret_cast<const char*>(data) + 2, size - 2);

    switch (mode) {
        case 0:
            check_raw(Decoder::quoted_printable, rest, boundary);
            break;
        case 1:
            check_raw(Decoder::base64, rest, boundary);
            break;
        case 2:
            check_raw(Decoder::uuencode, rest, boundary);
            break;
        case 3: {
            const std::string trailer = "\r\n--" + std::string(boundary) + "\r\nafter";
            const Outcome got =
                run_decoder(Decoder::base64, encode_base64(rest, line_length) + trailer, boundary);
            FUZZ_CHECK(got.output == rest);
            FUZZ_CHECK(got.rest == trailer.substr(4));
            break;
        }
        case 4: {
            const std::string trailer = "--" + std::string(boundary) + "\r\nafter";
            const Outcome got =
                run_decoder(Decoder::quoted_printable,
                            encode_quoted_printable(rest, line_length) + trailer, boundary);
            FUZZ_CHECK(got.output == rest);
            FUZZ_CHECK(got.rest == trailer);
            break;
        }
        default: {
            const std::string line_end = data[1] & 1 ? "\r\n" : "\n";
            const std::string trailer = "next line\r\n";
            const std::string body =
                "preamble" + line_end + encode_uuencode(rest, line_end) + trailer;
            const Outcome got = run_decoder(Decoder::uuencode, body, boundary);
            FUZZ_CHECK(!got.threw);
            FUZZ_CHECK(got.output == rest);
            // A data line of count 5 may begin with "end" and end the body
            // early, behind its own data.
            FUZZ_CHECK(got.rest == std::string_view(body).substr(model_uuencode(body).end));
            FUZZ_CHECK(got.rest.size() >= trailer.size());
            break;
        }
    }
    std::error_code ignored;
    fs::remove_all(scratch().root, ignored);
    return 0;
}
