// Tests of the encoded-word decoder and its helpers: decoded bytes, texts
// left as they came, and no byte written behind the input's NUL.
#include "decomposition/encoded_words.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "byte_stream.h"

namespace qbsmtp {
namespace {

using testing::visible;

using namespace std::string_literals;

// Runs an in-place operation on text in a buffer with a guard area behind
// its NUL, and checks that the guard is intact; then once more in a heap
// block of the text's exact size, where the sanitizers see any read
// behind the NUL.
template <typename Operation>
std::string run_in_place(const std::string& text, Operation operation) {
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    const std::size_t guard_start = buffer.size();
    buffer.resize(guard_start + 16, '#');
    operation(buffer.data());
    for (std::size_t i = guard_start; i < buffer.size(); ++i) {
        EXPECT_EQ(buffer[i], '#') << "written behind the text at " << i;
    }
    auto exact = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(exact.get(), text.c_str(), text.size() + 1);
    operation(exact.get());
    EXPECT_EQ(std::string(exact.get()), std::string(buffer.data()));
    return std::string(buffer.data());
}

TEST(EncodedWords, DecodesAndKeepsWhatIsNoWord) {
    struct Case {
        std::string input;
        std::string output;
    };
    const std::vector<Case> cases = {
        {"=?iso-8859-1?Q?Caff=E8_al_bar?= ok", "Caff\xe8 al bar ok"},
        {"=?ISO-8859-1?b?TWFu?=", "Man"},
        {"=?IsO-8859-1?q?x?=", "x"},
        {"=?iso-8859-1?B?SGVsbG8=?= world", "Hello world"},
        // Other charsets, encodings and broken words stay as they are.
        {"=?utf-8?Q?Caff=C3=A8?=", "=?utf-8?Q?Caff=C3=A8?="},
        {"=?iso-8859-1?X?abc?=", "=?iso-8859-1?X?abc?="},
        {"=?iso-8859-1?Q?abc", "=?iso-8859-1?Q?abc"},
        {"=?iso-8859-1?Q?"
         "?=",
         "=?iso-8859-1?Q?"
         "?="},
        {"=?iso-8859-1?B?====?=", "=?iso-8859-1?B?====?="},
        {"=?iso-8859-1", "=?iso-8859-1"},
        {"x =?iso-8859-1?", "x =?iso-8859-1?"},
        {"=?iso-8859-1?Q", "=?iso-8859-1?Q"},
        // The name matches over its own length; the byte behind it goes
        // untested, so the '5' is dropped and '?' is no encoding mark.
        {"=?iso-8859-15?Q?abc?=", "=?iso-8859-15?Q?abc?="},
        {"=?iso-8859-1*Q?a?=", "a"},
        // Blanks may stand before the charset, the mark and the '?'.
        {"=? iso-8859-1? Q ?a?=", "a"},
        {"=?iso-8859-1?Q?a?==?iso-8859-1?Q?b?=", "ab"},
        // No joining: blanks and folds between words stay.
        {"a =?iso-8859-1?Q?b?= =?iso-8859-1?Q?c?= d", "a b c d"},
        {"=?iso-8859-1?Q?a?=\r\n =?iso-8859-1?Q?b?=", "a\r\n b"},
        // After a failed word the scan resumes right behind its "=?".
        {"=?=?iso-8859-1?Q?x?=", "=?x"},
        {"=?utf-8?Q?a?= =?iso-8859-1?Q?b?=", "=?utf-8?Q?a?= b"},
        {"=?iso-8859-1?Q?=?iso-8859-1?Q?x?=", "so-8859-1?Q?x"},
        // A decoded NUL ends the word's text, but the word counts as decoded.
        {"A=?iso-8859-1?Q?=00x?=B", "AB"},
        {"A=?iso-8859-1?Q?x=00y?=B", "AxB"},
        {"\xe8 =?iso-8859-1?Q?=FF?= \xff", "\xe8 \xff \xff"},
        {"", ""},
        {"plain text", "plain text"},
        {"=?", "=?"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        EXPECT_EQ(run_in_place(c.input, decode_encoded_words), c.output);
    }
}

TEST(EncodedWords, QWords) {
    struct Case {
        std::string input;
        std::size_t count;
        std::string bytes;  // the first count bytes of the result
    };
    const std::vector<Case> cases = {
        {"Caff=E8", 5, "Caff\xe8"},
        {"caff=e8", 5, "caff\xe8"},
        {"a_b", 3, "a b"},
        {"=5F", 1, "_"},
        {"=3D=3d", 2, "=="},
        // A '=' without two hex digits vanishes with the two bytes behind it.
        {"=G1x", 1, "x"},
        {"a=1Gb", 2, "ab"},
        {"ab=", 2, "ab"},
        {"ab=4", 2, "ab"},
        {"=00z", 2, "\0z"s},
        {"", 0, ""},
        {"\xe9", 1, "\xe9"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        std::size_t count = 0;
        std::vector<char> buffer(c.input.begin(), c.input.end());
        buffer.push_back('\0');
        count = decode_q_word(buffer.data());
        ASSERT_EQ(count, c.count);
        EXPECT_EQ(std::string(buffer.data(), count), c.bytes);
        EXPECT_EQ(buffer[count], '\0');
    }
}

TEST(EncodedWords, Base64Words) {
    struct Case {
        std::string input;
        std::size_t count;
        std::string bytes;
    };
    const std::vector<Case> cases = {
        {"TWFu", 3, "Man"},
        {"TQ==", 1, "M"},
        {"TWE=", 2, "Ma"},
        {"SGVsbG8=", 5, "Hello"},
        {"dGVzdA", 4, "test"},
        {"TWFuTWFu", 6, "ManMan"},
        {"AA==", 1, "\0"s},
        {"+/+/", 3, "\xfb\xff\xbf"},
        // A blank between groups of four costs nothing...
        {"SGVs bG8=", 5, "Hello"},
        // ...inside the data it costs both its pairs, and the bits of the
        // character before it: the bytes from there on are wrong.
        {"TW.Fu", 2, "M["},
        {"TW\xe9"
         "Fu",
         2, "M["},
        {"T", 0, ""},
        {"", 0, ""},
        {"====", 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        std::vector<char> buffer(c.input.begin(), c.input.end());
        buffer.push_back('\0');
        std::size_t count = decode_base64_word(buffer.data());
        ASSERT_EQ(count, c.count);
        EXPECT_EQ(std::string(buffer.data(), count), c.bytes);
        EXPECT_EQ(buffer[count], '\0');
    }
}

TEST(EncodedWords, TrimLeft) {
    struct Case {
        std::string input;
        std::string output;
    };
    const std::vector<Case> cases = {
        {"\t\n\x0b\x0c\r x y ", "x y "},
        {"x", "x"},
        {"  ", ""},
        {"", ""},
        {"\xa0x", "\xa0x"},  // 8-bit bytes are no blanks
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        EXPECT_EQ(run_in_place(c.input, trim_left), c.output);
    }
}

}  // namespace
}  // namespace qbsmtp
