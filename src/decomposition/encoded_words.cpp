// encoded_words.cpp: RFC 2047 encoded words, decoded in place.
//
// decode_encoded_words keeps three texts: the result so far, the rest to
// scan, and a saved point to go back to. All three live in the caller's
// buffer: the result is written at its front, and it never overtakes the
// saved point, since a word that decodes is shorter than its "=?...?="
// form and one that doesn't is copied back as the two bytes "=?" only.
#include "decomposition/encoded_words.h"

#include <array>
#include <cstring>

#include "decomposition/header_scanner.h"

namespace qbsmtp {

namespace {

// Table value of a byte outside the base64 alphabet (the pad '=' too).
constexpr unsigned char not_base64 = 65;

constexpr std::array<unsigned char, 128> make_base64_values() {
    std::array<unsigned char, 128> values{};
    for (auto& v : values) v = not_base64;
    for (int i = 0; i < 26; ++i) {
        values['A' + i] = static_cast<unsigned char>(i);
        values['a' + i] = static_cast<unsigned char>(26 + i);
    }
    for (int i = 0; i < 10; ++i) values['0' + i] = static_cast<unsigned char>(52 + i);
    values['+'] = 62;
    values['/'] = 63;
    return values;
}
constexpr std::array<unsigned char, 128> base64_values = make_base64_values();

unsigned base64_value(char c) {
    auto byte = static_cast<unsigned char>(c);
    return byte < base64_values.size() ? base64_values[byte] : not_base64;
}

// Value of an ASCII hex digit of either case, or -1.
int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The decoders read length bytes of in and write their output to out,
// which may be in itself or lie before it: no output byte is written
// before the input bytes at its place have been read. No NUL is added.

std::size_t decode_base64(const char* in, std::size_t length, char* out) {
    std::size_t count = 0;
    unsigned shift = 0;  // 0, 2, 4: where the pair stands in its group of four
    for (std::size_t pos = 0; pos + 2 <= length; ++pos) {
        unsigned a = base64_value(in[pos]);
        unsigned b = base64_value(in[pos + 1]);
        // A byte outside the alphabet costs both pairs it belongs to.
        if (a == not_base64 || b == not_base64) continue;
        unsigned bits = ((a << (shift + 10)) | (b << (shift + 4))) & 0xFFFF;
        out[count++] = static_cast<char>(bits >> 8);
        shift = (shift + 2) % 6;
        // Three pairs use up four characters.
        if (shift == 0) ++pos;
    }
    return count;
}

std::size_t decode_q(const char* in, std::size_t length, char* out) {
    std::size_t count = 0;
    std::size_t pos = 0;
    while (pos < length) {
        char c = in[pos];
        if (c == '=') {
            int high = pos + 1 < length ? hex_value(in[pos + 1]) : -1;
            int low = pos + 2 < length ? hex_value(in[pos + 2]) : -1;
            if (high >= 0 && low >= 0) out[count++] = static_cast<char>(high * 16 + low);
            // A broken escape vanishes with the two bytes behind the '=',
            // as far as the word reaches.
            pos += pos + 3 <= length ? 3 : length - pos;
            continue;
        }
        out[count++] = c == '_' ? ' ' : c;  // RFC 2047 4.2: '_' is a space
        ++pos;
    }
    return count;
}

const char* skip_space(const char* text) {
    while (is_space_byte(static_cast<unsigned char>(*text))) ++text;
    return text;
}

// True if text starts with charset_name, ASCII case folded.
bool starts_with_charset(const char* text) {
    for (std::size_t i = 0; i + 1 < sizeof charset_name; ++i) {
        if (ascii_upper(text[i]) != ascii_upper(charset_name[i])) return false;
    }
    return true;
}

using Decoder = std::size_t (*)(const char*, std::size_t, char*);

struct Encoding {
    char mark;
    Decoder decode;
};
constexpr Encoding encodings[] = {
    {'B', decode_base64}, {'b', decode_base64}, {'Q', decode_q}, {'q', decode_q}};

Decoder decoder_for(char mark) {
    for (const Encoding& e : encodings) {
        if (mark != '\0' && e.mark == mark) return e.decode;
    }
    return nullptr;
}

// Parses the encoded word behind a "=?" (at word_start) and decodes it
// to out. Returns the bytes decoded, 0 if there is no word here or it
// decodes to nothing; end is then left alone, else it is set behind the
// closing "?=".
std::size_t decode_word_at(const char* word_start, char* out, const char*& end) {
    const char* rest = skip_space(word_start);
    if (!starts_with_charset(rest)) return 0;
    rest += sizeof charset_name - 1;
    if (*rest == '\0') return 0;
    // The byte behind the charset name is passed over untested.
    rest = skip_space(rest + 1);
    Decoder decode = decoder_for(*rest);
    if (decode == nullptr) return 0;
    rest = skip_space(rest + 1);
    if (*rest != '?') return 0;
    ++rest;
    const char* close = std::strstr(rest, "?=");
    if (close == nullptr) return 0;
    std::size_t count = decode(rest, static_cast<std::size_t>(close - rest), out);
    if (count > 0) end = close + 2;
    return count;
}

}  // namespace

void decode_encoded_words(char* text) {
    char* result_end = text;
    const char* saved = text;
    for (;;) {
        const char* open = std::strstr(saved, "=?");
        if (open == nullptr) {
            std::memmove(result_end, saved, std::strlen(saved) + 1);
            return;
        }
        std::size_t before = static_cast<std::size_t>(open - saved);
        std::memmove(result_end, saved, before);
        result_end += before;
        const char* word_end = nullptr;
        std::size_t count = decode_word_at(open + 2, result_end, word_end);
        if (count > 0) {
            // The word counts as a text: a decoded NUL ends it.
            const void* nul = std::memchr(result_end, '\0', count);
            result_end += nul != nullptr ? static_cast<const char*>(nul) - result_end : count;
            saved = word_end;
        } else {
            // Not a word: keep its "=?" and scan on right behind it.
            *result_end++ = '=';
            *result_end++ = '?';
            saved = open + 2;
        }
    }
}

std::size_t decode_base64_word(char* word) {
    std::size_t count = decode_base64(word, std::strlen(word), word);
    word[count] = '\0';
    return count;
}

std::size_t decode_q_word(char* word) {
    std::size_t count = decode_q(word, std::strlen(word), word);
    word[count] = '\0';
    return count;
}

void trim_left(char* word) {
    const char* start = skip_space(word);
    if (start != word) std::memmove(word, start, std::strlen(start) + 1);
}

}  // namespace qbsmtp
