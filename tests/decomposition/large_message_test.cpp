// large_message_test.cpp: a 100 MiB attachment goes from spool file to
// file without the module holding it: the peak resident size of the
// process grows by a bounded amount, and every byte arrives.
//
// Not a timing test: the bound is on memory only. Under a sanitizer the
// resident size says nothing (shadow memory, quarantine), so it is skipped.
#ifndef _WIN32
#include <sys/resource.h>
#endif

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "spool_fixture.h"

namespace qbsmtp {
namespace {

using test::crlf;
using test::SpoolFixture;

constexpr std::uint64_t attachment_size = 100ull * 1024 * 1024;
constexpr long allowed_growth_kib = 16 * 1024;

// The attachment's byte at offset i.
unsigned char pattern_byte(std::uint64_t i) {
    return static_cast<unsigned char>((i * 2654435761u) >> 13 ^ i);
}

long peak_rss_kib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

class LargeMessage : public SpoolFixture {};

TEST_F(LargeMessage, HundredMebibyteAttachmentInBoundedMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "resident size is meaningless under a sanitizer";
#endif
    {
        std::ofstream out(spool + "/rx000001.822", std::ios::binary);
        out << crlf(
            "Return-Path: <a@b.example>\nReceived: from a by b\nMIME-Version: 1.0\n"
            "Content-Type: multipart/mixed; boundary=b\n\n"
            "--b\nContent-Type: application/octet-stream; name=big.bin\n"
            "Content-Transfer-Encoding: base64\n\n");
        std::string line;
        for (std::uint64_t at = 0; at < attachment_size; at += 57) {
            std::string bytes;
            for (std::uint64_t i = at; i < at + 57 && i < attachment_size; ++i)
                bytes += static_cast<char>(pattern_byte(i));
            line += test::base64(bytes);
            if (line.size() > (1u << 20)) {
                out << line;
                line.clear();
            }
        }
        out << line << crlf("--b\nContent-Type: text/plain\n\nafter\n--b--");
        ASSERT_TRUE(out.good());
    }

    const long before = peak_rss_kib();
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    const long growth = peak_rss_kib() - before;
    EXPECT_LT(growth, allowed_growth_kib) << "peak resident size grew by " << growth << " KiB";

    const auto paths = attachments();
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(test::read_file(paths[1]), "after");
    std::ifstream in(paths[0], std::ios::binary);
    std::vector<char> chunk(1 << 20);
    std::uint64_t offset = 0;
    std::uint64_t first_difference = attachment_size;
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
        for (std::streamsize i = 0; i < in.gcount(); ++i, ++offset) {
            if (first_difference == attachment_size &&
                static_cast<unsigned char>(chunk[static_cast<std::size_t>(i)]) !=
                    pattern_byte(offset)) {
                first_difference = offset;
            }
        }
    }
    EXPECT_EQ(offset, attachment_size);
    EXPECT_EQ(first_difference, attachment_size);
}

}  // namespace
}  // namespace qbsmtp
