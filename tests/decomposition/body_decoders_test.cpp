// body_decoders_test.cpp: quoted-printable, base64 and uuencode bodies:
// the decoded bytes, where each decoder leaves the input, and failures.
#include <cstdio>
#include <string>
#include <vector>

#include "decomposition/body_decoders.h"
#include "spool_fixture.h"

namespace qbsmtp {
namespace {

using test::BodyContext;
using test::SpoolFixture;
using test::visible;

struct DecodeCase {
    const char* label;
    std::string input;
    std::string output;  // the file's bytes
    std::string rest;    // what stays in the input
};

class Decoders : public SpoolFixture {
  protected:
    ContentInfo parent_with(const char* boundary) {
        ContentInfo info;
        std::snprintf(info.boundary, sizeof info.boundary, "%s", boundary);
        return info;
    }
    void expect_qp(const DecodeCase& c, const char* boundary) {
        BodyContext body(mime, c.input);
        load_quoted_printable(body.context, parent_with(boundary));
        EXPECT_EQ(visible(body.rest()), visible(c.rest)) << c.label;
        EXPECT_EQ(visible(body.output()), visible(c.output)) << c.label;
    }
};

TEST(HexValue, DigitsOfEitherCase) {
    const std::string digits = "0123456789abcdefABCDEF";
    const int values[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                          11, 12, 13, 14, 15, 10, 11, 12, 13, 14, 15};
    for (std::size_t i = 0; i < digits.size(); ++i) EXPECT_EQ(hex_value(digits[i]), values[i]);
    for (char c : std::string("gG/:@`\0 ", 8)) EXPECT_LT(hex_value(c), 0) << int(c);
}

TEST_F(Decoders, QuotedPrintableLines) {
    const DecodeCase cases[] = {
        {"escape", "a=3Db\r\n", "a=b\r\n", ""},
        {"lower-case escape", "=3d=c3=A9\r\n", "=\xC3\xA9\r\n", ""},
        {"decoded byte not looked at again", "=3D41\r\n", "=41\r\n", ""},
        {"line of blanks", "   \r\nx\r\n", "\r\nx\r\n", ""},
        {"lone soft break", "=\r\n", "", ""},
        {"one character and a soft break", "a=\r\nb\r\n", "ab\r\n", ""},
        {"soft break behind blanks", "a= \t \r\nb\r\n", "ab\r\n", ""},
        {"trailing white space goes", "a \t\x01\r\n", "a\r\n", ""},
        {"=4 at the end stays", "x=4\r\n", "x=4\r\n", ""},
        {"=G1 stays", "=G1x\r\n", "=G1x\r\n", ""},
        {"high byte at the end stays", "a\xE9\r\n", "a\xE9\r\n", ""},
        {"LF alone ends a line", "abc\ndef\n", "abc\r\ndef\r\n", ""},
        {"last line without line end", "abc", "abc\r\n", ""},
        {"escape on the last line", "a=3D", "a=\r\n", ""},
        {"bare CR inside a line stays", "a\rb\r\n", "a\rb\r\n", ""},
        {"empty body", "", "", ""},
    };
    for (const DecodeCase& c : cases) expect_qp(c, "b");
}

TEST_F(Decoders, QuotedPrintableEndsAtTheParentsBoundary) {
    const DecodeCase with_boundary[] = {
        {"boundary line", "x\r\n--b\r\nrest", "x\r\n", "--b\r\nrest"},
        {"closing delimiter", "x=\r\n--b--\r\n", "x", "--b--\r\n"},
        {"more text behind the pattern ends it too", "x\r\n--bc more\r\n", "x\r\n",
         "--bc more\r\n"},
        {"pattern inside a line is text", "a--b\r\n", "a--b\r\n", ""},
        {"a shorter line is text", "--\r\n-\r\n", "--\r\n-\r\n", ""},
        {"boundary first", "--b\r\n", "", "--b\r\n"},
    };
    for (const DecodeCase& c : with_boundary) expect_qp(c, "b");
    // Not multipart: the pattern is "--" alone.
    expect_qp({"signature line", "a\r\n-- sig\r\n", "a\r\n", "-- sig\r\n"}, "");
}

// Lines longer than the buffer are read in pieces; any valid encoding must
// still decode to its text, wherever a piece ends.
TEST_F(Decoders, QuotedPrintableLongLinesAcrossPieceEdges) {
    for (std::size_t k = qp_piece_size - 6; k <= qp_piece_size + 4; ++k) {
        const std::string a(k, 'a');
        const std::string b(120, 'b');
        const DecodeCase cases[] = {
            {"escape at the edge", a + "=3D" + b + "\r\n", a + "=" + b + "\r\n", ""},
            {"soft break at the edge", a + "=\r\nc\r\n", a + "c\r\n", ""},
            {"soft break behind blanks", a + "=  \t \r\nc\r\n", a + "c\r\n", ""},
            {"trailing blanks at the edge", a + "        \r\nc\r\n", a + "\r\nc\r\n", ""},
            {"inner blanks stay", a + "    " + b + "\r\n", a + "    " + b + "\r\n", ""},
            {"escape then blanks", a + "=41  \r\n", a + "A\r\n", ""},
            {"=X then blank is text", a + "=A " + b + "\r\n", a + "=A " + b + "\r\n", ""},
            {"two equals", a + "==41\r\n", a + "=A\r\n", ""},
            {"last line at end of file", a + "=3D" + b, a + "=" + b + "\r\n", ""},
            {"boundary later in the line is text", a + "--b\r\n", a + "--b\r\n", ""},
            {"next line is the boundary", a + "=\r\n--b\r\nz", a, "--b\r\nz"},
        };
        for (const DecodeCase& c : cases) {
            SCOPED_TRACE("line length " + std::to_string(k));
            expect_qp(c, "b");
        }
    }
}

TEST_F(Decoders, QuotedPrintableVeryLongLineWithEscapesThroughout) {
    std::string encoded;
    std::string text;
    for (int i = 0; i < 700; ++i) {
        const unsigned char byte = static_cast<unsigned char>(i * 37 + 11);
        static const char digits[] = "0123456789ABCDEF";
        if (i % 3 == 0) {
            encoded += '=';
            encoded += digits[byte >> 4];
            encoded += digits[byte & 15];
            text += static_cast<char>(byte);
        } else {
            encoded += static_cast<char>('a' + i % 26);
            text += static_cast<char>('a' + i % 26);
        }
    }
    expect_qp({"700 characters, every third escaped", encoded + "\r\nnext\r\n--b\r\n",
               text + "\r\nnext\r\n", "--b\r\n"},
              "b");
}

TEST_F(Decoders, QuotedPrintableLongBoundaryLineIsTakenBackWhole) {
    const std::string line = "--b" + std::string(300, 'x') + "\r\n";
    expect_qp({"long boundary line", "t\r\n" + line, "t\r\n", line}, "b");
    // A run of blanks that fills a whole piece is written as it stands;
    // only the blanks of the piece with the line end are trailing.
    expect_qp(
        {"blank run", std::string(150, ' ') + "\r\n", std::string(qp_piece_size, ' ') + "\r\n", ""},
        "b");
}

TEST_F(Decoders, Base64Groups) {
    const DecodeCase cases[] = {
        {"full group", "QUJD", "ABC", ""},
        {"one padding", "QUI=", "AB", ""},
        {"two paddings", "QQ==", "A", ""},
        {"data replaces a padding", "QU=JD", "ABC", ""},
        {"= first in a group ignored", "=QUJD", "ABC", ""},
        {"= second in a group ignored", "Q=UJD", "ABC", ""},
        {"groups run across lines", "QU\r\nJD\r\nRE\nVG", "ABCDEF", ""},
        {"NUL and other bytes skipped", std::string("QU\0J*D", 6), "ABC", ""},
        {"dash at a line start followed by text is lost", "QUJD\r\n-RE\r\nVG", "ABCDEF", ""},
        {"incomplete group dropped", "QUJDRE", "ABC", ""},
        {"ends behind two dashes", "QUJD\r\n--b\r\nQUJD", "ABC", "b\r\nQUJD"},
        {"any two dashes at a line start end it", "QUJD\r\n--zzz", "ABC", "zzz"},
        {"not at the start: no CR LF in front yet", "--QUJD", "ABC", ""},
        {"LF alone makes no line start", "QUJD\n--QUJD", "ABCABC", ""},
        {"CR CR LF makes no line start", "QUJD\r\r\n--QUJD", "ABCABC", ""},
    };
    for (const DecodeCase& c : cases) {
        BodyContext body(mime, c.input);
        load_base64(body.context);
        EXPECT_EQ(visible(body.rest()), visible(c.rest)) << c.label;
        EXPECT_EQ(visible(body.output()), visible(c.output)) << c.label;
    }
}

TEST_F(Decoders, Base64AllByteValues) {
    const std::string bytes = test::binary_bytes(256 * 40 + 2);
    BodyContext body(mime, test::base64(bytes) + "--b--\r\n");
    load_base64(body.context);
    EXPECT_EQ(body.rest(), "b--\r\n");
    EXPECT_EQ(body.output(), bytes);
}

TEST_F(Decoders, Uuencode) {
    const DecodeCase cases[] = {
        {"a block", "begin 644 x.txt\r\n%86)C9&4 \r\n`\r\nend\r\nNEXT", "abcde", "NEXT"},
        {"text before begin is passed", "junk\r\nmore\r\nbegin\r\n#86)C\r\n \r\nend\r\n", "abc",
         ""},
        {"last group cut to the count", "begin 600 y\r\n\"86)C\r\n`\r\nend\r\n", "ab", ""},
        {"count 0 ends the data", "begin 644 x\r\n#86)C\r\n`\r\n#86)C\r\nend\r\nZ", "abc", "Z"},
        {"end without count 0 is data first", "begin 644 x\r\n#86)C\r\nend\r\n",
         std::string("abc8Kj\0\0", 8), ""},
        {"count beyond the line reads zeros", "begin 644 x\r\n&86)C\r\n`\r\nend\r\n",
         std::string("abc\xB6\xA0\0", 6), ""},
        // A NUL as first byte is a count like any byte: (0 - 32) & 63 = 32,
        // read from an empty line, so 32 zero bytes; it does not end the data.
        {"NUL count byte is 32", std::string("begin 644 x\r\n\0AB\r\n#86)C\r\n`\r\nend\r\n", 33),
         std::string(32, '\0') + "abc", ""},
    };
    for (const DecodeCase& c : cases) {
        BodyContext body(mime, c.input);
        load_uuencode(body.context);
        EXPECT_EQ(visible(body.rest()), visible(c.rest)) << c.label;
        EXPECT_EQ(visible(body.output()), visible(c.output)) << c.label;
    }
}

TEST_F(Decoders, UuencodeWithoutBeginOrEndLine) {
    struct Missing {
        std::string input;
        std::uint32_t event;
    };
    const Missing cases[] = {
        {"no block here\r\nend\r\n", event::uuencode_begin_missing},
        {"begin 644 x\r\n#86)C\r\n", event::uuencode_end_missing},
    };
    for (const Missing& c : cases) {
        BodyContext body(mime, c.input);
        const std::string output_path = body.context.output_path.c_str();
        const std::string message_path = body.context.message_path.c_str();
        EXPECT_THROW(load_uuencode(body.context), int);
        EXPECT_EQ(only_event(c.event), (std::vector<std::string>{output_path, message_path}));
    }
}

// A write that fails is reported with the decoder's name and thrown. The
// bodies are larger than the stream's buffer, so writes reach the file.
TEST_F(Decoders, WriteFailuresAreReportedAndThrown) {
    auto repeat = [](const std::string& head, const std::string& line, const std::string& tail) {
        std::string text = head;
        while (text.size() < 3 * Stream::buffer_size) text += line;
        return text + tail;
    };
    struct Writer {
        const char* name;
        void (*run)(ParseContext&);
        std::string input;
    };
    const Writer writers[] = {
        {"load_quoted_printable", [](ParseContext& c) { load_quoted_printable(c, ContentInfo{}); },
         repeat("", std::string(70, 'x') + "\r\n", "")},
        {"load_base64", [](ParseContext& c) { load_base64(c); },
         repeat("", "QUJDQUJDQUJDQUJD\r\n", "")},
        {"load_uuencode", [](ParseContext& c) { load_uuencode(c); },
         repeat("begin 644 x\r\n", "M" + std::string(60, 'A') + "\r\n", "`\r\nend\r\n")},
    };
    std::size_t reported = 0;
    for (const Writer& w : writers) {
        BodyContext body(mime, w.input);
        os::FaultScope fault(os::Op::WriteFile, 1, os::ERROR_DISK_FULL);
        EXPECT_THROW(w.run(body.context), int) << w.name;
        const auto events = test::events_with_id(event::write_failed);
        ASSERT_EQ(events.size(), ++reported) << w.name;
        ASSERT_EQ(events.back().strings.size(), 2u);
        EXPECT_EQ(events.back().strings[0], w.name);
    }
}

}  // namespace
}  // namespace qbsmtp
