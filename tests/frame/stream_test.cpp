// stream_test.cpp: Stream's text mode, lines and pushback across the end of
// its buffer, and write failures that close reports.

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
    EXPECT_NE(s, nullptr) << path;
    std::string out;
    for (int c; s != nullptr && (c = s->getc()) != Stream::eof;) out += static_cast<char>(c);
    EXPECT_TRUE(s == nullptr || (s->getc() == Stream::eof && s->close() == 0));
    return out;
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
    std::string raw = std::string(b - 2, 'a') + "\n\n\n" + std::string(50000, 'c') + "\ntail";
    test::write_file(prefix.file("in"), raw);
    for (std::size_t size : {2ul, 1000ul, b + 10}) {
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
        std::string taken;
        for (int i = 0; i < 40000; ++i) taken += static_cast<char>(s->getc());
        for (std::size_t i = taken.size(); i-- > 0;)
            ASSERT_EQ(s->ungetc(static_cast<unsigned char>(taken[i])), taken[i]);
        std::int64_t at = 0;
        EXPECT_EQ(s->getpos(&at), 0);
        EXPECT_EQ(at, static_cast<std::int64_t>(skipped.size()));
        std::string again;
        for (int i = 0; i < 40010; ++i) again += static_cast<char>(s->getc());
        EXPECT_EQ(again, raw.substr(skipped.size(), 40010));
        EXPECT_EQ(s->close(), 0);
    }
}

TEST(Stream, FailedWriteFailsTheCloseWithItsReason) {
    test::TempPrefix prefix;
    // Bytes written before the nth WriteFile fails: on the flush of close,
    // of a full buffer, or a later one.
    const std::pair<std::size_t, unsigned> cases[] = {{10, 1}, {3 * b + 7, 1}, {3 * b + 7, 2}};
    for (const auto& [before, nth] : cases) {
        Stream* s = Stream::open(prefix.file("out").c_str(), "wb");
        ASSERT_NE(s, nullptr);
        os::FaultScope fault(os::Op::WriteFile, nth, os::ERROR_DISK_FULL);
        for (std::size_t i = 0; i < before; ++i) s->putc('w');
        os::SetLastError(0);
        EXPECT_EQ(s->close(), Stream::eof) << before << " " << nth;
        EXPECT_EQ(os::GetLastError(), os::ERROR_DISK_FULL);
    }
}

}  // namespace
}  // namespace qbsmtp
