// stream_test.cpp: Stream's text mode, and lines and pushback across the
// end of its buffer.

#include "frame/stream.h"

#include <string>
#include <vector>

#include "frame_fixture.h"
#include "support/case_table.h"

namespace qbsmtp {
namespace {

constexpr std::size_t b = Stream::buffer_size;

std::string read_all(const std::string& path, const char* mode) {
    Stream* s = Stream::open(path.c_str(), mode);
    if (s == nullptr) return "<cannot open>";
    std::string out;
    for (int c; (c = s->getc()) != Stream::eof;) out += static_cast<char>(c);
    return s->getc() == Stream::eof && s->close() == 0 ? out : "<not at its end>";
}

TEST(Stream, TextModeTable) {
    test::TempPrefix prefix;
    auto expand = [](std::string text) {
        for (std::size_t at; (at = text.find("{pad}")) != std::string::npos;)
            text.replace(at, 5, std::string(b - 1, 'x'));
        return text;
    };
    for (const test::Case& c : test::read_cases("frame/stream_text.txt", 2)) {
        const std::string raw = expand(test::unescape(c[0]));
        test::write_file(prefix.file("in"), raw);
        EXPECT_EQ(read_all(prefix.file("in"), "r"), expand(test::unescape(c[1]))) << c.where;
        EXPECT_EQ(read_all(prefix.file("in"), "rb"), raw) << c.where;
    }
}

TEST(Stream, LinesAndPushbackAcrossTheBufferEnd) {
    test::TempPrefix prefix;
    // Line ends just before, at and behind the end of the first buffer.
    std::string raw = std::string(b - 2, 'a') + "\n\n\n";
    for (int i = 0; i < 50000; ++i) raw += static_cast<char>('b' + i % 23);
    raw += "\ntail";
    test::write_file(prefix.file("in"), raw);
    for (std::size_t size : {std::size_t{2}, std::size_t{1000}, b + 10}) {
        Stream* s = Stream::open(prefix.file("in").c_str(), "rb");
        ASSERT_NE(s, nullptr);
        std::vector<char> line(size);
        // As fgets: pieces of at most size - 1 bytes, cut behind each LF.
        for (std::size_t at = 0; at < raw.size();) {
            const std::size_t lf = raw.find('\n', at);
            const std::size_t end =
                std::min(lf == std::string::npos ? raw.size() : lf + 1, at + size - 1);
            ASSERT_EQ(s->gets(line.data(), static_cast<int>(size)), line.data()) << at;
            ASSERT_EQ(std::string(line.data()), raw.substr(at, end - at)) << at;
            at = end;
        }
        EXPECT_EQ(s->gets(line.data(), static_cast<int>(size)), nullptr);
        // 40000 bytes taken back across the refill, then read again.
        s->rewind();
        std::vector<char> skipped(b - 1000);
        ASSERT_EQ(s->read(skipped.data(), skipped.size()), skipped.size());
        auto read_n = [s](int n) {
            std::string bytes;
            while (n-- > 0) bytes += static_cast<char>(s->getc());
            return bytes;
        };
        const std::string taken = read_n(40000);
        for (std::size_t i = taken.size(); i-- > 0;)
            ASSERT_EQ(s->ungetc(static_cast<unsigned char>(taken[i])), taken[i]);
        std::int64_t at = 0;
        EXPECT_EQ(s->getpos(&at), 0);
        EXPECT_EQ(at, static_cast<std::int64_t>(skipped.size()));
        EXPECT_EQ(read_n(40010), raw.substr(skipped.size(), 40010));
        EXPECT_EQ(s->close(), 0);
    }
}

}  // namespace
}  // namespace qbsmtp
