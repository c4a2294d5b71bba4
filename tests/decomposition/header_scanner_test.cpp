// Tests of the header readers: each one's result, what it stores, and
// exactly where it leaves the stream.
#include "decomposition/header_scanner.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "byte_stream.h"

namespace qbsmtp {
namespace {

using testing::ByteStream;
using testing::visible;

using namespace std::string_literals;

TEST(HeaderScanner, ReadFieldName) {
    struct Case {
        std::string input;
        std::size_t size;
        int result;
        std::string name;  // checked for result 1
        std::string rest;
    };
    const std::string long_name(600, 'a');
    const std::vector<Case> cases = {
        {"Subject : hi", 512, 1, "SUBJECT", ": hi"},
        {"From:x", 512, 1, "FROM", "x"},
        {"x-Fax-To: a", 512, 1, "X-FAX-TO", " a"},
        {":value", 512, 1, "", "value"},
        {" lead", 512, 1, "", "lead"},
        {"\tcontinued", 512, 0, "", "\tcontinued"},
        {"\r\nbody", 512, 0, "", "\r\nbody"},
        {"Na\x7fme:", 512, 0, "", "\x7fme:"},
        {"Name\r\n", 512, 0, "", "\r\n"},
        {"Name", 512, 0, "", ""},
        {"", 512, 0, "", ""},
        {"\xe9t\xe9:x", 512, 1, "\xe9T\xe9", "x"},
        {"abcdef:x", 4, 1, "ABC", "x"},
        {long_name + ":x", 512, 1, std::string(511, 'A'), "x"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        ByteStream bytes(c.input);
        std::vector<char> name(c.size + 8, '#');
        EXPECT_EQ(read_field_name(bytes.context(), name.data(), c.size), c.result);
        if (c.result == 1) {
            EXPECT_EQ(std::string(name.data()), c.name);
        }
        for (std::size_t i = c.size; i < name.size(); ++i) ASSERT_EQ(name[i], '#') << i;
        EXPECT_EQ(bytes.rest(), c.rest);
    }
}

TEST(HeaderScanner, MoreInField) {
    struct Case {
        std::string input;
        int result;
        std::string rest;
    };
    const std::vector<Case> cases = {
        {"  x", 1, "x"},
        {"\t\tx", 1, "x"},
        {"\nx", 1, "x"},          // a lone LF is passed like a blank
        {"\r\n\tx", 1, "x"},      // a fold
        {"\r\n \r\n x", 1, "x"},  // two folds
        {"\rx", 1, "x"},
        {"\r\rx", 1, "x"},
        {"\r \r\nY", 0, "Y"},
        {"  \r\nX: y", 0, "X: y"},
        {"\r\n\r\nbody", 0, "\r\nbody"},
        {"\r\n\nx", 0, "\nx"},
        {"\x0bx", 1, "\x0bx"},  // VT is content
        {"\x0cx", 1, "\x0cx"},  // so is FF
        {"  \r\n", 0, ""},
        {"  ", 0, ""},
        {"", 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        ByteStream bytes(c.input);
        EXPECT_EQ(more_in_field(bytes.context()), c.result);
        EXPECT_EQ(bytes.rest(), c.rest);
    }
}

TEST(HeaderScanner, SkipFieldCapturesWithoutUnfolding) {
    struct Case {
        std::string input;
        std::string capture;
        std::string rest;
    };
    const std::vector<Case> cases = {
        {"a\r\n\tb\r\nX", "a\r\n\tb", "X"},
        {"a;b\r\nX", "ab", "X"},
        {"a\rb\r\nX", "ab", "X"},
        {"a\r\r\nX", "a", "X"},
        {"a\nb\r\nX", "a\nb", "X"},
        {"a\0b\r\nX"s, "ab", "X"},
        {"a\r", "a\r", ""},
        {"a\r\n", "a", ""},
        {"abc", "abc", ""},
        {"\r\n\r\nbody", "", "\r\nbody"},
        {"x\r\n \r\n\t;y\r\nZ", "x\r\n \r\n\ty", "Z"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        ByteStream bytes(c.input);
        char capture[500];
        std::memset(capture, '#', sizeof capture);
        skip_field(bytes.context(), capture, sizeof capture);
        EXPECT_EQ(visible(capture), visible(c.capture));
        EXPECT_EQ(bytes.rest(), c.rest);

        ByteStream again(c.input);
        skip_field(again.context());
        EXPECT_EQ(again.rest(), c.rest);
    }
}

TEST(HeaderScanner, SkipFieldCutsALongCaptureAtItsBuffer) {
    // A folded field of 1200 bytes into a 500-byte buffer: 499 bytes and
    // the NUL, nothing behind it touched, and the whole field consumed.
    std::string value;
    while (value.size() < 1200) value += "word word\r\n ";
    ByteStream bytes(value + "end\r\nNext: x");
    std::vector<char> capture(520, '#');
    skip_field(bytes.context(), capture.data(), 500);
    std::string expected = value.substr(0, 499);
    EXPECT_EQ(std::string(capture.data()), expected);
    for (std::size_t i = 500; i < capture.size(); ++i) ASSERT_EQ(capture[i], '#') << i;
    EXPECT_EQ(bytes.rest(), "Next: x");

    ByteStream one("abc\r\nX");
    char tiny[1] = {'#'};
    skip_field(one.context(), tiny, sizeof tiny);
    EXPECT_EQ(tiny[0], '\0');
    EXPECT_EQ(one.rest(), "X");
}

TEST(HeaderScanner, ReadToken) {
    struct Case {
        std::string input;
        std::int32_t size;
        bool upper;
        int result;
        std::string token;  // checked unless the result is 0 with content
        std::string rest;
    };
    const std::vector<Case> cases = {
        {"text/plain", 256, true, token_plain, "TEXT", "/plain"},
        {"/plain", 256, true, token_delimiter, "/", "plain"},
        {"\"a b\"x", 256, false, token_quoted, "a b", "x"},
        {"\"a b\"x", 256, true, token_quoted, "A B", "x"},
        {"\"a\\\"b\"", 256, false, token_quoted, "a\"b", ""},
        {"\"a\\\\b\"", 256, false, token_quoted, "a\\b", ""},
        {"\"a\\\rb\"", 256, false, token_quoted, "a\rb", ""},
        {"\"a;=/b\"", 256, false, token_quoted, "a;=/b", ""},
        {"\"\"x", 256, false, token_quoted, "", "x"},
        {"\"abc\r\n", 256, false, token_none, "", "\r\n"},
        {"\"abc\r\n\t def\"", 256, false, token_none, "", "\r\n\t def\""},
        {"ab\"c", 256, false, token_plain, "ab", "\"c"},
        {"a.b=c", 256, false, token_plain, "a.b", "=c"},
        {"=x", 256, false, token_delimiter, "=", "x"},
        {"\\x", 256, false, token_delimiter, "\\", "x"},
        {"(c)", 256, false, token_delimiter, "(", "c)"},
        {" x", 256, false, token_plain, "", " x"},
        {"\x01x", 256, false, token_plain, "", "\x01x"},
        {"ab\r\n", 256, false, token_plain, "ab", "\r\n"},
        {"ab\x0b", 256, false, token_plain, "ab", "\x0b"},
        {"\xe9t\xe9 x", 256, true, token_plain, "\xe9T\xe9", " x"},
        {"abcdef;x", 4, false, token_plain, "abc", ";x"},
        {"\"abcdef\"x", 4, true, token_quoted, "ABC", "x"},
        {"abc", 1, false, token_none, "", "abc"},
        {"abc", 0, false, token_none, "", "abc"},
        {"abc", -5, false, token_none, "", "abc"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input) + " size " + std::to_string(c.size));
        ByteStream bytes(c.input);
        std::vector<char> token(static_cast<std::size_t>(c.size > 0 ? c.size : 0) + 8, '#');
        EXPECT_EQ(read_token(bytes.context(), token.data(), c.size, c.upper), c.result);
        if (c.size >= 2) {
            EXPECT_EQ(visible(token.data()), visible(c.token));
        }
        for (std::size_t i = static_cast<std::size_t>(c.size > 0 ? c.size : 0); i < token.size();
             ++i)
            ASSERT_EQ(token[i], '#') << i;
        EXPECT_EQ(bytes.rest(), c.rest);
    }
}

TEST(HeaderScanner, TheFifteenDelimitersAndNoOthers) {
    const std::string delimiters = "()<>@,;:\\\"/[]?=";
    for (int c = 1; c < 256; ++c) {
        SCOPED_TRACE(c);
        bool expected = delimiters.find(static_cast<char>(c)) != std::string::npos;
        EXPECT_EQ(is_token_delimiter(c), expected);
        // Inside a token a delimiter ends it and stays in the stream.
        if (expected) {
            ByteStream bytes(std::string("ab") + static_cast<char>(c) + "x");
            char token[16];
            EXPECT_EQ(read_token(bytes.context(), token, sizeof token, false), token_plain);
            EXPECT_STREQ(token, "ab");
            EXPECT_EQ(bytes.rest(), std::string(1, static_cast<char>(c)) + "x");
        }
    }
    EXPECT_FALSE(is_token_delimiter(0));
    EXPECT_FALSE(is_token_delimiter(Stream::eof));
}

TEST(HeaderScanner, ReadTokenAtTheEndOfTheFileGivesNothing) {
    for (const std::string input : {"abc", "\"abc", "\"ab\\", ""}) {
        SCOPED_TRACE(input);
        ByteStream bytes(input);
        char token[256];
        EXPECT_EQ(read_token(bytes.context(), token, sizeof token, false), token_none);
        EXPECT_EQ(bytes.rest(), "");
    }
}

TEST(HeaderScanner, EatCrlf) {
    struct Case {
        std::string input;
        std::string rest;
    };
    const std::vector<Case> cases = {
        {"\r\nX", "X"},     {"\nX", "\nX"}, {"\rX", "X"}, {"\r\r\n", "\r\n"},
        {"X\r\n", "X\r\n"}, {"\r", ""},     {"", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.input));
        ByteStream bytes(c.input);
        eat_crlf(bytes.context());
        EXPECT_EQ(bytes.rest(), c.rest);
    }
}

TEST(HeaderScanner, ReadersChainThroughAHeaderSection) {
    ByteStream bytes(
        "Subject: hi\r\n there\r\n"
        "X-Empty:   \r\n"
        "Content-Type: text/plain;\r\n\tcharset=us-ascii\r\n"
        "\r\n"
        "body\r\n");
    ParseContext& context = bytes.context();
    char name[512];
    char capture[500];

    ASSERT_EQ(read_field_name(context, name, sizeof name), 1);
    EXPECT_STREQ(name, "SUBJECT");
    ASSERT_EQ(more_in_field(context), 1);
    skip_field(context, capture, sizeof capture);
    EXPECT_STREQ(capture, "hi\r\n there");

    ASSERT_EQ(read_field_name(context, name, sizeof name), 1);
    EXPECT_STREQ(name, "X-EMPTY");
    EXPECT_EQ(more_in_field(context), 0);  // already on the next name

    ASSERT_EQ(read_field_name(context, name, sizeof name), 1);
    EXPECT_STREQ(name, "CONTENT-TYPE");
    const std::vector<std::pair<int, std::string>> tokens = {
        {token_plain, "TEXT"},     {token_delimiter, "/"},   {token_plain, "PLAIN"},
        {token_delimiter, ";"},    {token_plain, "CHARSET"}, {token_delimiter, "="},
        {token_plain, "US-ASCII"},
    };
    for (const auto& [result, text] : tokens) {
        ASSERT_EQ(more_in_field(context), 1) << text;
        char token[256];
        EXPECT_EQ(read_token(context, token, sizeof token, true), result);
        EXPECT_EQ(std::string(token), text);
    }
    EXPECT_EQ(more_in_field(context), 0);

    EXPECT_EQ(read_field_name(context, name, sizeof name), 0);
    eat_crlf(context);
    EXPECT_EQ(bytes.rest(), "body\r\n");
}

}  // namespace
}  // namespace qbsmtp
