// encoded_words_fuzz.cpp: decode_encoded_words on arbitrary text, checked
// against a model that follows the decoder's rules with three separate
// strings (result, rest, saved) instead of working in place.
//
// The input is the text with its NUL bytes left out. It is decoded in a
// heap block of its exact size, so that the sanitizers see any access
// behind the NUL; the result must equal the model's and never be longer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "decomposition/encoded_words.h"

#include "fuzz_support.h"
namespace {

int model_base64_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return 65;
}

// Two neighbouring characters at a time; shift 0, 2, 4.
std::string model_base64(const std::string& word) {
    std::string out;
    int shift = 0;
    long length = static_cast<long>(word.size());
    for (long pos = 0; pos <= length - 2;) {
        int a = model_base64_value(static_cast<unsigned char>(word[pos]));
        int b = model_base64_value(static_cast<unsigned char>(word[pos + 1]));
        if (a == 65 || b == 65) {
            ++pos;
            continue;
        }
        out += static_cast<char>((((a << (shift + 10)) | (b << (shift + 4))) & 0xFFFF) >> 8);
        shift = (shift + 2) % 6;
        pos += shift == 0 ? 2 : 1;
    }
    return out;
}

int model_hex(char c) {
    const char* digits = "0123456789ABCDEF0123456789abcdef";
    const char* at = c != '\0' ? std::strchr(digits, c) : nullptr;
    return at == nullptr ? -1 : static_cast<int>((at - digits) % 16);
}

std::string model_q(const std::string& word) {
    std::string out;
    for (std::size_t i = 0; i < word.size();) {
        if (word[i] == '=') {
            if (i + 2 < word.size() && model_hex(word[i + 1]) >= 0 && model_hex(word[i + 2]) >= 0)
                out += static_cast<char>(model_hex(word[i + 1]) * 16 + model_hex(word[i + 2]));
            i += 3;
            continue;
        }
        out += word[i] == '_' ? ' ' : word[i];
        ++i;
    }
    return out;
}

std::string model_trim_left(const std::string& s) {
    std::size_t i = s.find_first_not_of("\t\n\v\f\r ");
    return i == std::string::npos ? std::string() : s.substr(i);
}

bool model_same_ignoring_case(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i] >= 'a' && a[i] <= 'z' ? static_cast<char>(a[i] - 32) : a[i];
        char y = b[i] >= 'a' && b[i] <= 'z' ? static_cast<char>(b[i] - 32) : b[i];
        if (x != y) return false;
    }
    return true;
}

std::string model_decode(const std::string& input) {
    const std::string charset = qbsmtp::charset_name;
    std::string result;
    std::string rest = input;
    std::string saved = input;
    for (;;) {
        std::size_t open = rest.find("=?");
        if (open == std::string::npos) return result + saved;
        std::size_t decoded = 0;
        result += rest.substr(0, open);
        saved = rest.substr(open + 2);
        rest = model_trim_left(saved);
        if (model_same_ignoring_case(rest.substr(0, charset.size()), charset) &&
            rest.size() > charset.size()) {
            rest = model_trim_left(rest.substr(charset.size() + 1));
            char mark = rest.empty() ? '\0' : rest[0];
            if (mark == 'b' || mark == 'B' || mark == 'q' || mark == 'Q') {
                rest = model_trim_left(rest.substr(1));
                if (!rest.empty() && rest[0] == '?') {
                    rest = rest.substr(1);
                    std::size_t close = rest.find("?=");
                    if (close != std::string::npos) {
                        std::string word = rest.substr(0, close);
                        rest = rest.substr(close + 2);
                        word = (mark == 'b' || mark == 'B') ? model_base64(word) : model_q(word);
                        decoded = word.size();
                        result += word.c_str();  // a decoded NUL ends the word
                    }
                }
            }
        }
        if (decoded != 0) {
            saved = rest;
        } else {
            rest = saved;
            result += "=?";
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 8192) return 0;
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] != 0) text += static_cast<char>(data[i]);
    }

    auto buffer = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(buffer.get(), text.c_str(), text.size() + 1);
    qbsmtp::decode_encoded_words(buffer.get());
    std::string decoded(buffer.get());
    FUZZ_CHECK(decoded.size() <= text.size());
    FUZZ_CHECK(decoded == model_decode(text));

    // The word decoders on the raw text as one word.
    std::memcpy(buffer.get(), text.c_str(), text.size() + 1);
    std::size_t count = qbsmtp::decode_q_word(buffer.get());
    std::string q = model_q(text);
    FUZZ_CHECK(count == q.size() && std::memcmp(buffer.get(), q.data(), count) == 0);
    std::memcpy(buffer.get(), text.c_str(), text.size() + 1);
    count = qbsmtp::decode_base64_word(buffer.get());
    std::string b = model_base64(text);
    FUZZ_CHECK(count == b.size() && std::memcmp(buffer.get(), b.data(), count) == 0);
    return 0;
}
