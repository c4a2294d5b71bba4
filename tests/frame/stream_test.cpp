// Tests of Stream: text mode, pushback, positions, line reads at buffer
// boundaries, write failures through the fault seam, and big round trips.
#include "frame/stream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "platform/os_fault.h"
#include "support/temp_prefix.h"

namespace qbsmtp {
namespace {

class StreamTest : public ::testing::Test {
  protected:
    void TearDown() override { os::fault_clear(); }

    std::string path(const char* name) const { return prefix_.file(name); }

    std::string put_file(const std::string& bytes, const char* name = "in") const {
        std::string p = path(name);
        test::write_file(p, bytes);
        return p;
    }

    static std::string file_bytes(const std::string& p) { return test::read_file(p); }

    static std::string read_all_getc(Stream* s) {
        std::string out;
        for (int c; (c = s->getc()) != Stream::eof;) out += static_cast<char>(c);
        return out;
    }

    test::TempPrefix prefix_;
};

std::string pseudo_random_bytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(generator());
    return bytes;
}

std::int64_t position_of(Stream* s) {
    std::int64_t at = -2;
    EXPECT_EQ(s->getpos(&at), 0);
    return at;
}

TEST_F(StreamTest, TextModeTranslatesCrLfAndStopsAtByte26) {
    struct Case {
        std::string raw;
        std::string text;  // what "r" delivers
    };
    const std::string boundary_crlf = std::string(Stream::buffer_size - 1, 'x') + "\r\ny";
    const std::string boundary_cr = std::string(Stream::buffer_size - 1, 'x') + "\rz";
    const std::vector<Case> cases = {
        {"a\r\nb\r\n", "a\nb\n"},
        {"a\rb", "a\rb"},
        {"a\r", "a\r"},
        {"\r\r\n", "\r\n"},
        {"\n\r\n\n", "\n\n\n"},
        {"a\x1a"
         "b\r\n",
         "a"},
        {"\r\x1a", "\r"},
        {"\x1a", ""},
        {"ab\x1a" + std::string(Stream::buffer_size + 10, 'x'), "ab"},
        {"", ""},
        {boundary_crlf, std::string(Stream::buffer_size - 1, 'x') + "\ny"},
        {boundary_cr, boundary_cr},
    };
    for (const Case& c : cases) {
        std::string p = put_file(c.raw);
        Stream* text = Stream::open(p.c_str(), "r");
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(read_all_getc(text), c.text) << "raw size " << c.raw.size();
        EXPECT_TRUE(text->at_end());
        EXPECT_EQ(text->getc(), Stream::eof);  // byte 26 ends it for good
        EXPECT_EQ(text->close(), 0);

        Stream* binary = Stream::open(p.c_str(), "rb");
        ASSERT_NE(binary, nullptr);
        EXPECT_EQ(read_all_getc(binary), c.raw);
        EXPECT_EQ(binary->close(), 0);
    }
}

TEST_F(StreamTest, TextModePositionsCountTheDroppedCr) {
    // Lines of CR LF straddling the buffer end, and lone LFs.
    std::string raw;
    while (raw.size() < Stream::buffer_size + 300)
        raw += (raw.size() % 3 == 0) ? std::string("line\r\n") : std::string("lf\n");
    std::string p = put_file(raw);
    Stream* s = Stream::open(p.c_str(), "r");
    ASSERT_NE(s, nullptr);
    // Walk the raw file and the delivered bytes together.
    std::vector<std::pair<std::int64_t, std::string>> marks;
    std::size_t r = 0;
    while (r < raw.size()) {
        ASSERT_EQ(position_of(s), static_cast<std::int64_t>(r));
        int c = s->getc();
        ASSERT_NE(c, Stream::eof);
        if (raw[r] == '\r') {
            ASSERT_EQ(c, '\n');
            r += 2;
        } else {
            ASSERT_EQ(c, static_cast<unsigned char>(raw[r]));
            r += 1;
        }
    }
    EXPECT_EQ(s->getc(), Stream::eof);
    EXPECT_EQ(position_of(s), static_cast<std::int64_t>(raw.size()));

    // Back to a position behind a CR LF near the end of the first buffer.
    std::int64_t target = static_cast<std::int64_t>(raw.rfind("line\r\n", Stream::buffer_size)) + 4;
    ASSERT_EQ(s->setpos(&target), 0);
    EXPECT_EQ(s->getc(), '\n');
    EXPECT_EQ(position_of(s), target + 2);
    EXPECT_EQ(s->close(), 0);
}

TEST_F(StreamTest, PushbackOfALongLineAcrossARefill) {
    std::string raw = pseudo_random_bytes(3 * Stream::buffer_size, 1);
    std::string p = put_file(raw);
    for (const char* mode : {"rb", "r"}) {
        std::string expected = raw;
        if (mode[0] == 'r' && mode[1] == '\0') {
            // Keep the text-mode view simple: no CR and no 26 in the data.
            for (char& c : expected)
                if (c == '\r' || c == 26) c = 'q';
            p = put_file(expected, "text");
        }
        Stream* s = Stream::open(p.c_str(), mode);
        ASSERT_NE(s, nullptr);
        // A "line" of 40000 bytes that starts 1000 bytes before the first refill.
        const std::size_t start = Stream::buffer_size - 1000;
        const std::size_t length = 40000;
        std::vector<char> skipped(start);
        ASSERT_EQ(s->read(skipped.data(), start), start);
        std::string line;
        for (std::size_t i = 0; i < length; ++i) line += static_cast<char>(s->getc());
        ASSERT_EQ(line, expected.substr(start, length));
        for (std::size_t i = length; i-- > 0;)
            ASSERT_EQ(s->ungetc(static_cast<unsigned char>(line[i])),
                      static_cast<unsigned char>(line[i]));
        EXPECT_EQ(position_of(s), static_cast<std::int64_t>(start));
        std::string again;
        for (std::size_t i = 0; i < length + 10; ++i) again += static_cast<char>(s->getc());
        EXPECT_EQ(again, expected.substr(start, length + 10)) << mode;
        EXPECT_EQ(position_of(s), static_cast<std::int64_t>(start + length + 10));
        EXPECT_EQ(s->close(), 0);
    }
}

TEST_F(StreamTest, PushbackBeyondTheAreaGrowsAndKeepsOrder) {
    std::string raw = "0123456789";
    std::string p = put_file(raw);
    Stream* s = Stream::open(p.c_str(), "rb");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->getc(), '0');
    EXPECT_EQ(s->getc(), '1');
    // Three times the guaranteed amount, bytes that differ from the file's.
    const std::size_t count = 3 * Stream::max_pushback;
    std::string pushed;
    for (std::size_t i = 0; i < count; ++i) pushed += static_cast<char>('a' + i % 26);
    for (std::size_t i = count; i-- > 0;)
        ASSERT_NE(s->ungetc(static_cast<unsigned char>(pushed[i])), Stream::eof) << i;
    EXPECT_EQ(s->ungetc(Stream::eof), Stream::eof);
    // Read one and take it back again: the grown area holds.
    int first = s->getc();
    EXPECT_EQ(first, 'a');
    EXPECT_EQ(s->ungetc(first), first);
    EXPECT_EQ(read_all_getc(s), pushed + "23456789");
    EXPECT_EQ(s->close(), 0);
}

TEST_F(StreamTest, PositionsAccountForBufferedAndPushedBackBytes) {
    std::string raw = pseudo_random_bytes(Stream::buffer_size + 5000, 2);
    std::string p = put_file(raw);
    Stream* s = Stream::open(p.c_str(), "rb");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(position_of(s), 0);
    // Pushing back in front of the file's start has no position.
    EXPECT_EQ(s->ungetc('z'), 'z');
    std::int64_t none = 0;
    EXPECT_EQ(s->getpos(&none), -1);
    EXPECT_EQ(s->getc(), 'z');
    EXPECT_EQ(position_of(s), 0);

    std::vector<char> block(Stream::buffer_size + 100);
    ASSERT_EQ(s->read(block.data(), block.size()), block.size());
    EXPECT_EQ(position_of(s), static_cast<std::int64_t>(block.size()));
    s->ungetc(block.back());
    s->ungetc(block[block.size() - 2]);
    std::int64_t saved = position_of(s);
    EXPECT_EQ(saved, static_cast<std::int64_t>(block.size() - 2));
    std::string after;
    for (int i = 0; i < 50; ++i) after += static_cast<char>(s->getc());
    EXPECT_EQ(after, raw.substr(block.size() - 2, 50));
    ASSERT_EQ(s->setpos(&saved), 0);
    std::string again;
    for (int i = 0; i < 50; ++i) again += static_cast<char>(s->getc());
    EXPECT_EQ(again, after);

    while (s->getc() != Stream::eof) {
    }
    EXPECT_TRUE(s->at_end());
    s->rewind();
    EXPECT_FALSE(s->at_end());
    EXPECT_EQ(position_of(s), 0);
    EXPECT_EQ(s->getc(), static_cast<unsigned char>(raw[0]));
    EXPECT_EQ(s->close(), 0);
}

TEST_F(StreamTest, GetsSplitsLinesAtBufferBoundaries) {
    // Line ends just before, at and behind the end of the first buffer,
    // a line longer than the caller's buffer, and a last line without LF.
    const std::size_t b = Stream::buffer_size;
    std::string raw;
    raw += std::string(b - 2 - raw.size(), 'a') + "\n";  // LF at b - 2
    raw += "\n";                                         // LF at b - 1
    raw += "\n";                                         // LF at b
    raw += std::string(700, 'c') + "\n";
    raw += "tail";
    std::string p = put_file(raw);
    for (int size : {2, 100, 1000, static_cast<int>(b) + 10}) {
        // What fgets would give: pieces of at most size - 1 bytes, cut behind LF.
        std::vector<std::string> expected;
        for (std::size_t at = 0; at < raw.size();) {
            std::size_t lf = raw.find('\n', at);
            std::size_t end = lf == std::string::npos ? raw.size() : lf + 1;
            if (end - at > static_cast<std::size_t>(size - 1)) end = at + size - 1;
            expected.push_back(raw.substr(at, end - at));
            at = end;
        }
        Stream* s = Stream::open(p.c_str(), "rb");
        ASSERT_NE(s, nullptr);
        std::vector<char> line(static_cast<std::size_t>(size));
        std::vector<std::string> got;
        while (s->gets(line.data(), size) != nullptr) got.emplace_back(line.data());
        EXPECT_EQ(got, expected) << "size " << size;
        EXPECT_TRUE(s->at_end());
        char one[1] = {'x'};
        EXPECT_EQ(s->gets(one, 1), one);  // room for the NUL only
        EXPECT_EQ(one[0], '\0');
        EXPECT_EQ(s->close(), 0);
    }
}

TEST_F(StreamTest, FailedWriteMakesCloseFailWithItsReason) {
    struct Case {
        const char* name;
        std::size_t before;  // bytes written before the fault is armed
        unsigned nth;        // which WriteFile call fails
    };
    const std::vector<Case> cases = {
        {"on_close_flush", 10, 1},
        {"on_buffer_flush", 3 * Stream::buffer_size + 7, 1},
        {"later_flush", 3 * Stream::buffer_size + 7, 2},
    };
    const std::string bytes = pseudo_random_bytes(6 * Stream::buffer_size, 3);
    for (const Case& c : cases) {
        std::string p = path(c.name);
        Stream* s = Stream::open(p.c_str(), "wb");
        ASSERT_NE(s, nullptr);
        os::fault_arm(os::Op::WriteFile, c.nth, os::ERROR_DISK_FULL);
        // Byte by byte, so that the buffer fills and flushes along the way.
        for (std::size_t i = 0; i < c.before; ++i) s->putc(bytes[i]);
        os::SetLastError(0);
        EXPECT_EQ(s->close(), Stream::eof) << c.name;
        EXPECT_EQ(os::GetLastError(), os::ERROR_DISK_FULL) << c.name;
        os::fault_clear();
    }
    // Once failed, the stream refuses further bytes.
    Stream* s = Stream::open(path("refuse").c_str(), "wb");
    ASSERT_NE(s, nullptr);
    {
        os::FaultScope fault(os::Op::WriteFile, 1, os::ERROR_DISK_FULL);
        EXPECT_EQ(s->write(bytes.data(), 2 * Stream::buffer_size), 0u);
    }
    EXPECT_TRUE(s->error());
    EXPECT_EQ(s->putc('x'), Stream::eof);
    EXPECT_EQ(s->printf("%d", 5), -1);
    EXPECT_EQ(s->close(), Stream::eof);
    EXPECT_EQ(os::GetLastError(), os::ERROR_DISK_FULL);
}

TEST_F(StreamTest, FailedCloseOrReadIsReported) {
    Stream* w = Stream::open(path("out").c_str(), "wb");
    ASSERT_NE(w, nullptr);
    w->putc('a');
    {
        os::FaultScope fault(os::Op::CloseHandle, 1, os::ERROR_WRITE_FAULT);
        EXPECT_EQ(w->close(), Stream::eof);
        EXPECT_EQ(os::GetLastError(), os::ERROR_WRITE_FAULT);
    }

    std::string p = put_file("abc");
    Stream* r = Stream::open(p.c_str(), "rb");
    ASSERT_NE(r, nullptr);
    {
        os::FaultScope fault(os::Op::ReadFile, 1, os::ERROR_READ_FAULT, true);
        EXPECT_EQ(r->getc(), Stream::eof);
        EXPECT_TRUE(r->error());
        EXPECT_FALSE(r->at_end());
        char line[8];
        EXPECT_EQ(r->gets(line, sizeof line), nullptr);
    }
    EXPECT_TRUE(r->error());   // sticky
    EXPECT_EQ(r->close(), 0);  // a failed read does not fail the close

    EXPECT_EQ(Stream::open(path("missing").c_str(), "rb"), nullptr);
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Stream::open(p.c_str(), "rw"), nullptr);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_PARAMETER);
}

TEST_F(StreamTest, LargeFileRoundTrip) {
    const std::string data = pseudo_random_bytes(5 * Stream::buffer_size + 12345, 4);
    const std::string long_text(3000, 'L');
    std::string p = path("big");
    Stream* w = Stream::open(p.c_str(), "wb");
    ASSERT_NE(w, nullptr);
    // Mixed sizes: bytes, a small block, a block bigger than the buffer, text.
    std::size_t at = 0;
    for (; at < 1000; ++at) ASSERT_EQ(w->putc(data[at]), static_cast<unsigned char>(data[at]));
    ASSERT_EQ(w->write(data.data() + at, 500), 500u);
    at += 500;
    ASSERT_EQ(w->write(data.data() + at, 2 * Stream::buffer_size + 3), 2 * Stream::buffer_size + 3);
    at += 2 * Stream::buffer_size + 3;
    std::int64_t written_so_far = position_of(w);
    EXPECT_EQ(written_so_far, static_cast<std::int64_t>(at));
    ASSERT_EQ(w->write(data.data() + at, data.size() - at), data.size() - at);
    ASSERT_EQ(w->printf("%s|%d|%s", "x", 42, long_text.c_str()),
              static_cast<int>(long_text.size() + 5));
    ASSERT_EQ(w->close(), 0);
    const std::string expected = data + "x|42|" + long_text;
    ASSERT_EQ(file_bytes(p), expected);

    // Append mode writes behind what is there.
    Stream* a = Stream::open(p.c_str(), "ab");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(position_of(a), static_cast<std::int64_t>(expected.size()));
    EXPECT_EQ(a->printf("+%s", "end"), 4);
    ASSERT_EQ(a->close(), 0);
    const std::string appended = expected + "+end";

    // Two appending streams on one file: each flush lands at the current end.
    std::string q = path("shared");
    Stream* first = Stream::open(q.c_str(), "ab");
    Stream* second = Stream::open(q.c_str(), "ab");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    first->putc('A');
    ASSERT_EQ(first->flush(), 0);
    second->putc('B');
    ASSERT_EQ(second->flush(), 0);
    first->putc('C');
    EXPECT_EQ(first->close(), 0);
    EXPECT_EQ(second->close(), 0);
    EXPECT_EQ(file_bytes(q), "ABC");

    // Read back with a small read, a big direct one, then byte by byte.
    Stream* r = Stream::open(p.c_str(), "rb");
    ASSERT_NE(r, nullptr);
    std::string back(appended.size(), '\0');
    ASSERT_EQ(r->read(back.data(), 777), 777u);
    ASSERT_EQ(r->read(back.data() + 777, 3 * Stream::buffer_size), 3 * Stream::buffer_size);
    std::size_t pos = 777 + 3 * Stream::buffer_size;
    EXPECT_EQ(position_of(r), static_cast<std::int64_t>(pos));
    for (int c; (c = r->getc()) != Stream::eof;) back[pos++] = static_cast<char>(c);
    EXPECT_EQ(pos, appended.size());
    EXPECT_EQ(back, appended);
    EXPECT_EQ(r->read(back.data(), 10), 0u);
    EXPECT_TRUE(r->at_end());
    EXPECT_EQ(r->close(), 0);
}

}  // namespace
}  // namespace qbsmtp
