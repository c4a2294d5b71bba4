// header_text.cpp: RFC 2047 encoded words to UTF-8 through iconv.
#include "header_text.h"

#include <iconv.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <optional>
#include <vector>

#include "record_json.h"

namespace qbsmtp::host {

namespace {

// One piece of a header text: a literal run, or an encoded word with its
// character set and decoded bytes.
struct Piece {
    bool is_word = false;
    std::string literal;  // the text as it came (for a word: the whole word)
    std::string charset;  // lower case, without an RFC 2231 language
    std::string bytes;    // a word's decoded bytes
};

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

std::string decode_q(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '_') {
            out += ' ';
        } else if (text[i] == '=' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 &&
                   hex_value(text[i + 2]) >= 0) {
            out += static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// Base64 of a word; nothing for text outside the alphabet before the pad.
std::optional<std::string> decode_b(std::string_view text) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (const char c : text) {
        if (c == '=') break;
        const auto value = alphabet.find(c);
        if (value == std::string_view::npos) return std::nullopt;
        bits = (bits << 6) | static_cast<unsigned>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return out;
}

// Parses an encoded word at the start of text; its length, or 0.
std::size_t parse_word(std::string_view text, Piece& word) {
    if (text.substr(0, 2) != "=?") return 0;
    const auto charset_end = text.find('?', 2);
    if (charset_end == std::string_view::npos || charset_end == 2 ||
        charset_end + 2 >= text.size() || text[charset_end + 2] != '?')
        return 0;
    const auto end = text.find("?=", charset_end + 3);
    if (end == std::string_view::npos) return 0;
    const std::string_view charset = text.substr(2, charset_end - 2);
    const std::string_view encoded = text.substr(charset_end + 3, end - charset_end - 3);
    const auto bad = [](char c) {
        return is_blank(c) || c == '?' || static_cast<unsigned char>(c) < 0x20 ||
               static_cast<unsigned char>(c) >= 0x7F;
    };
    if (std::any_of(charset.begin(), charset.end(), bad) ||
        std::any_of(encoded.begin(), encoded.end(), bad))
        return 0;
    const char encoding =
        static_cast<char>(std::toupper(static_cast<unsigned char>(text[charset_end + 1])));
    std::optional<std::string> bytes;
    if (encoding == 'Q')
        bytes = decode_q(encoded);
    else if (encoding == 'B')
        bytes = decode_b(encoded);
    if (!bytes) return 0;
    word.is_word = true;
    word.charset = std::string(charset.substr(0, charset.find('*')));
    std::transform(word.charset.begin(), word.charset.end(), word.charset.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    word.bytes = std::move(*bytes);
    word.literal = std::string(text.substr(0, end + 2));
    return end + 2;
}

// bytes in charset as UTF-8; nothing if iconv can't convert all of them.
std::optional<std::string> convert(const std::string& charset, const std::string& bytes) {
    const iconv_t cd = iconv_open("UTF-8", charset.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) return std::nullopt;
    std::string out(bytes.size() * 4 + 16, '\0');
    std::string in = bytes;
    char* in_at = in.data();
    std::size_t in_left = in.size();
    char* out_at = out.data();
    std::size_t out_left = out.size();
    bool ok = true;
    while (ok) {
        const std::size_t result = in_left == 0 ? iconv(cd, nullptr, nullptr, &out_at, &out_left)
                                                : iconv(cd, &in_at, &in_left, &out_at, &out_left);
        if (result != static_cast<std::size_t>(-1)) {
            if (in_left == 0) break;
            continue;
        }
        if (errno != E2BIG) {
            ok = false;
            break;
        }
        const std::size_t used = static_cast<std::size_t>(out_at - out.data());
        out.resize(out.size() * 2);
        out_at = out.data() + used;
        out_left = out.size() - used;
    }
    iconv_close(cd);
    if (!ok) return std::nullopt;
    out.resize(static_cast<std::size_t>(out_at - out.data()));
    return out;
}

std::string unfolded(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
            ++i;
            continue;
        }
        if (text[i] != '\n') out += text[i];
    }
    return out;
}

}  // namespace

std::string decode_header_text(std::string_view bytes) {
    std::vector<Piece> pieces;
    std::size_t i = 0, literal_start = 0;
    const auto flush_literal = [&](std::size_t end) {
        if (end > literal_start)
            pieces.push_back(
                {false, std::string(bytes.substr(literal_start, end - literal_start)), {}, {}});
    };
    while (i < bytes.size()) {
        Piece word;
        const std::size_t length = parse_word(bytes.substr(i), word);
        if (length == 0) {
            ++i;
            continue;
        }
        flush_literal(i);
        // Blanks between two encoded words are no part of the text.
        if (pieces.size() >= 2 && !pieces.back().is_word && pieces[pieces.size() - 2].is_word &&
            std::all_of(pieces.back().literal.begin(), pieces.back().literal.end(), is_blank))
            pieces.pop_back();
        pieces.push_back(std::move(word));
        i += length;
        literal_start = i;
    }
    flush_literal(bytes.size());

    std::string out;
    for (std::size_t k = 0; k < pieces.size();) {
        if (!pieces[k].is_word) {
            out += unfolded(text_to_utf8(pieces[k++].literal));
            continue;
        }
        // A run of adjacent words in one character set converts as one.
        std::size_t end = k;
        std::string run_bytes, run_literal;
        while (end < pieces.size() && pieces[end].is_word &&
               pieces[end].charset == pieces[k].charset) {
            run_bytes += pieces[end].bytes;
            run_literal += pieces[end].literal;
            ++end;
        }
        const auto converted = convert(pieces[k].charset, run_bytes);
        out += converted ? *converted : text_to_utf8(run_literal);
        k = end;
    }
    return out;
}

}  // namespace qbsmtp::host
