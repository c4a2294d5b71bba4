// The body emitters: the text pump with the dot rule and its 1023-byte
// pieces, and the base64 pump with its 72-character lines.

#include "sending/body_emitters.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>

#include "send_fixture.h"

namespace qbsmtp::test {
namespace {

class EmitterTest : public SendFixture {
  protected:
    void SetUp() override { start_module_on(25); }

    // The file with these bytes, emitted through emit after opening it in mode.
    std::string emit_file(const std::string& bytes, const char* mode,
                          const std::function<void(SmtpClient&, Stream*)>& emit) {
        const std::string path = make_file("input", bytes);
        Stream* file = Stream::open(path.c_str(), mode);
        EXPECT_NE(file, nullptr);
        const std::string wire = capture([&](SmtpClient& client) { emit(client, file); });
        file->close();
        return wire;
    }

    std::string bare_text(const std::string& bytes) {
        return emit_file(bytes, "r", [](SmtpClient& client, Stream* file) {
            emit_text_without_adding_mime_headers(client, file);
        });
    }

    std::string base64(const std::string& bytes) {
        return emit_file(bytes, "rb", [](SmtpClient& client, Stream* file) {
            emit_base64(client, file, "f.bin", "application/x-test");
        });
    }
};

constexpr const char* text_headers =
    "Content-Type:text/plain; charset=US-ASCII; name=\"a b.txt\"\r\n"
    "Content-Transfer-Encoding:7bit\r\n\r\n";
constexpr const char* base64_headers =
    "Content-Type:application/x-test; name=\"f.bin\"\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\n";

TEST_F(EmitterTest, TextPumpEndsLinesInCrLfAndDoublesLeadingDots) {
    const std::string a1022(1022, 'a');
    const std::string a1023(1023, 'a');
    const std::string a3000(3000, 'a');
    struct Case {
        const char* name;
        std::string file;
        std::string wire;
    };
    const Case cases[] = {
        {"empty file", "", ""},
        {"one line", "a\n", "a\r\n"},
        {"CR LF in the file", "a\r\nb\r\n", "a\r\nb\r\n"},
        {"last line without LF", "a\nb", "a\r\nb"},
        {"a lone dot", ".\n", "..\r\n"},
        {"the first line is tested too", ".a\n.b", "..a\r\n..b"},
        {"dots inside lines stay", "x.\n..y\n", "x.\r\n...y\r\n"},
        {"empty lines", "\n\n", "\r\n\r\n"},
        {"lone CR goes through", "a\rb\n", "a\rb\r\n"},
        {"NUL ends its piece", std::string("a\0b\nc\n", 6), "ac\r\n"},
        {"piece starting with NUL writes nothing", std::string("\0.x\n.y\n", 7), ".y\r\n"},
        {"byte 26 ends the text",
         "a\n\x1a"
         "b\n",
         "a\r\n"},
        {"bytes above 127", "\xe8\xff\n", "\xe8\xff\r\n"},
        {"1022 bytes and LF: one piece", a1022 + "\n", a1022 + "\r\n"},
        {"1023 bytes and LF: two pieces, one line", a1023 + "\n", a1023 + "\r\n"},
        {"no dot rule inside a long line", a1023 + ".b\n.c\n", a1023 + ".b\r\n..c\r\n"},
        {"3000 bytes: nothing inserted", a3000 + "\n", a3000 + "\r\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(bare_text(c.file), c.wire);
    }
}

TEST_F(EmitterTest, EmitTextWritesItsHeadersFirst) {
    const auto with_file = [&](const std::string& bytes) {
        return emit_file(bytes, "r", [](SmtpClient& client, Stream* file) {
            emit_text(client, file, "a b.txt");
        });
    };
    const std::string null_file =
        capture([](SmtpClient& client) { emit_text(client, nullptr, "a b.txt"); });
    EXPECT_EQ(null_file, text_headers);
    EXPECT_EQ(with_file(""), null_file);
    EXPECT_EQ(with_file(".x\n"), std::string(text_headers) + "..x\r\n");
}

// Decodes one base64 line of ours; appends to bytes.
void decode_line(const std::string& line, std::string& bytes) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    ASSERT_EQ(line.size() % 4, 0u) << line;
    for (std::size_t i = 0; i < line.size(); i += 4) {
        std::uint32_t value = 0;
        int pads = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            value <<= 6;
            if (line[i + j] == '=') {
                ++pads;
                continue;
            }
            const std::size_t index = alphabet.find(line[i + j]);
            ASSERT_NE(index, std::string::npos) << line;
            value |= static_cast<std::uint32_t>(index);
        }
        bytes += static_cast<char>(value >> 16);
        if (pads < 2) bytes += static_cast<char>(value >> 8);
        if (pads < 1) bytes += static_cast<char>(value);
    }
}

TEST_F(EmitterTest, Base64LinesHold54BytesEach) {
    struct Case {
        std::size_t size;
        std::vector<std::size_t> line_lengths;  // without CR LF
        std::string last_line_ends;
    };
    const Case cases[] = {
        {0, {}, ""},         {1, {4}, "=="},      {2, {4}, "="},      {3, {4}, ""},
        {54, {72}, ""},      {55, {72, 4}, "=="}, {56, {72, 4}, "="}, {57, {72, 4}, ""},
        {108, {72, 72}, ""}, {1000, {}, "=="},  // 18 full lines, then 28 bytes: 40 characters
    };
    std::mt19937 random(1);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        std::string bytes(c.size, '\0');
        for (char& b : bytes) b = static_cast<char>(random());
        const std::string wire = base64(bytes);
        ASSERT_TRUE(wire.starts_with(base64_headers));
        const std::string body = wire.substr(std::string(base64_headers).size());

        std::vector<std::size_t> lengths;
        std::string decoded;
        std::string last;
        for (std::size_t at = 0; at < body.size();) {
            const std::size_t end = body.find("\r\n", at);
            ASSERT_NE(end, std::string::npos) << "every line ends in CR LF";
            last = body.substr(at, end - at);
            lengths.push_back(last.size());
            decode_line(last, decoded);
            at = end + 2;
        }
        std::vector<std::size_t> expected = c.line_lengths;
        if (c.size == 1000) {
            expected.assign(18, 72);
            expected.push_back(40);
        }
        EXPECT_EQ(lengths, expected);
        EXPECT_TRUE(last.ends_with(c.last_line_ends));
        if (!c.last_line_ends.empty()) {
            EXPECT_FALSE(last.ends_with(c.last_line_ends + "="));
        }
        EXPECT_EQ(decoded, bytes);
    }
}

TEST_F(EmitterTest, Base64TakesBytesAsUnsigned) {
    EXPECT_EQ(base64(std::string("\xff\xff\xff\x80", 4)),
              std::string(base64_headers) + "////gA==\r\n");
    EXPECT_EQ(base64("Man"), std::string(base64_headers) + "TWFu\r\n");
}

TEST_F(EmitterTest, TextPassesOnlyThroughByteWritesNotTheDebugLog) {
    // With DebugLog set, the headers are echoed and the body lines are not.
    const std::size_t events_before = events().size();
    debug_log = 1;
    emit_file("secret line\n", "r",
              [](SmtpClient& client, Stream* file) { emit_text(client, file, "n.txt"); });
    std::string logged;
    const std::vector<ReportedEvent> all = events();
    for (std::size_t i = events_before; i < all.size(); ++i) {
        ASSERT_EQ(all[i].id, "0x400051A3");
        logged += all[i].strings.at(0);
    }
    EXPECT_NE(logged.find("Content-Transfer-Encoding:7bit"), std::string::npos);
    EXPECT_EQ(logged.find("secret line"), std::string::npos);
}

}  // namespace
}  // namespace qbsmtp::test
