// hostile_spool_test.cpp: spool files made to hurt SMTPRecvNext. Each one
// is taken apart to the end: the call returns, every file it makes lies
// under mime_dir (nothing else in the spool tree or the working directory
// changes), every listed file exists, the fields read behind the hostile
// part are still read, and (without a sanitizer) the peak resident size
// grows by a bounded amount.
//
// The files are generated on tmpfs (/dev/shm), in a fresh directory. The
// full sizes run in the release build; under a sanitizer or as a 32-bit
// program (emulated here) each case takes the lighter size in its row.
// QBSMTP_RELIABILITY_SCALE multiplies either (20 gives a million parts).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>

#include "decomposition/spool_fixture.h"
#include "process_probe.h"

namespace qbsmtp::test {
namespace {

namespace fs = std::filesystem;

// A stream for writing a large spool file in big blocks.
class SpoolWriter {
  public:
    explicit SpoolWriter(const std::string& path) : out_(path, std::ios::binary) {
        out_ << "Return-Path: <hostile@sender.example>\r\n"
                "Received: from a by b with SMTP ; 23 Nov 2026 08:00:00 +0000\r\n";
    }
    SpoolWriter& operator<<(const std::string& text) {
        block_ += text;
        if (block_.size() > (1u << 20)) flush();
        return *this;
    }
    // count bytes of value c.
    void repeat(char c, std::size_t count) {
        flush();
        const std::string chunk(1u << 20, c);
        for (; count >= chunk.size(); count -= chunk.size()) out_ << chunk;
        out_ << std::string(count, c);
    }
    bool close() {
        flush();
        out_.close();
        return !out_.fail();
    }

  private:
    void flush() {
        out_ << block_;
        block_.clear();
    }
    std::ofstream out_;
    std::string block_;
};

// What a hostile case checks beyond the common properties.
struct Expect {
    bool result_known = true;  // SMTPRecvNext must give result
    int result = 1;
    const char* subject = nullptr;  // the subject read behind the hostile part
    long min_files = 0;             // at least so many listed files
};

struct HostileCase {
    const char* label;
    std::size_t full;   // the size parameter in the release build
    std::size_t light;  // under a sanitizer or 32-bit
    std::function<void(SpoolWriter&, std::size_t)> write;
    Expect expect;
};

std::string numbered(const char* stem, std::size_t n) {
    return stem + std::to_string(n);
}

const HostileCase hostile_cases[] = {
    {"HeaderLineOf200MB",
     200u << 20,
     20u << 20,
     [](SpoolWriter& out, std::size_t size) {
         out << "To: <";
         out.repeat('x', size);
         out << "@fax.example>\r\nSubject: behind the long line\r\n\r\nbody";
     },
     {true, 1, "behind the long line", 1}},
    {"FieldNameOf200MBWithoutColon",
     200u << 20,
     20u << 20,
     [](SpoolWriter& out, std::size_t size) {
         out.repeat('N', size);
         out << "\r\nSubject: behind the long name\r\n\r\nbody";
     },
     {false, 0, nullptr, 0}},
    {"HundredThousandHeaderFields",
     100000,
     20000,
     [](SpoolWriter& out, std::size_t count) {
         for (std::size_t i = 0; i < count; ++i)
             out << numbered("X-Field-", i) << ": value " << std::to_string(i) << "\r\n";
         out << "Subject: behind the fields\r\n\r\nbody";
     },
     {true, 1, "behind the fields", 1}},
    {"MimeTreeTenThousandLevelsDeep",
     10000,
     10000,
     [](SpoolWriter& out, std::size_t depth) {
         out << "Subject: deep\r\nMIME-Version: 1.0\r\n";
         for (std::size_t level = 0; level < depth; ++level)
             out << "Content-Type: multipart/mixed; boundary=" << numbered("b", level)
                 << "\r\n\r\n--" << numbered("b", level) << "\r\n";
         out << "Content-Type: text/plain\r\n\r\ninnermost\r\n";
         for (std::size_t level = depth; level-- > 0;)
             out << "--" << numbered("b", level) << "--\r\n";
     },
     {true, 1, "deep", 1}},
    {"BoundaryOnEveryOtherLine",
     100000,
     10000,
     [](SpoolWriter& out, std::size_t lines) {
         out << "Subject: every other line\r\nMIME-Version: 1.0\r\n"
                "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
         for (std::size_t i = 0; i < lines / 2; ++i) out << "--b\r\nx: y\r\n";
         out << "--b--";
     },
     {true, 1, "every other line", 1}},
    {"TinyParts",
     50000,
     20000,
     [](SpoolWriter& out, std::size_t parts) {
         out << "Subject: tiny parts\r\nMIME-Version: 1.0\r\n"
                "Content-Type: multipart/mixed; boundary=p\r\n\r\n";
         for (std::size_t i = 0; i < parts; ++i) out << "--p\r\n\r\nx\r\n";
         out << "--p--";
     },
     {true, 1, "tiny parts", 1000}},
    {"BinaryJunk",
     64u << 20,
     8u << 20,
     [](SpoolWriter& out, std::size_t size) {
         std::mt19937 random(11);
         std::string block(1u << 16, '\0');
         for (std::size_t done = 0; done < size; done += block.size()) {
             for (char& c : block) c = static_cast<char>(random());
             out << block;
         }
     },
     {false, 0, nullptr, 0}},
    {"BinaryJunkInAMultipartBody",
     32u << 20,
     4u << 20,
     [](SpoolWriter& out, std::size_t size) {
         out << "Subject: junk parts\r\nMIME-Version: 1.0\r\n"
                "Content-Type: multipart/alternative; boundary=j\r\n\r\n--j\r\n"
                "Content-Type: application/octet-stream; name=\"a.bin\"\r\n"
                "Content-Transfer-Encoding: base64\r\n\r\n";
         std::mt19937 random(12);
         std::string block(1u << 16, '\0');
         for (std::size_t done = 0; done < size; done += block.size()) {
             for (char& c : block) {
                 // Now and then a line that starts like a boundary, or like
                 // a header field, or uuencode.
                 const unsigned roll = random() % 4096;
                 c = roll == 0 ? '\n' : static_cast<char>(random());
             }
             out << block << "\r\n--j\r\nContent-Type: multipart/mixed; boundary=j\r\n\r\n"
                 << "begin 644 x\r\n";
         }
     },
     {true, 1, "junk parts", 1}},
};

void PrintTo(const HostileCase& c, std::ostream* out) {
    *out << c.label;
}

// Path and size of every file under root, to find what a call changed.
std::map<std::string, std::uintmax_t> tree(const std::string& root) {
    std::map<std::string, std::uintmax_t> files;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(root, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        files[it->path().string()] = it->is_regular_file() ? it->file_size() : 0;
    }
    return files;
}

bool under(const std::string& path, const std::string& directory) {
    return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
           path[directory.size()] == '/';
}

class HostileSpool : public SpoolFixture, public ::testing::WithParamInterface<HostileCase> {
  protected:
    std::string scratch;
    std::string work_directory;
    std::string old_directory;

    void SetUp() override {
        std::string pattern = "/dev/shm/qbsmtp-hostile-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) GTEST_SKIP() << "no /dev/shm here";
        scratch = pattern;
        spool = scratch + "/spool";
        mime = spool + os::path_separator + "mime";
        // A working directory of its own: a relative path would show there.
        work_directory = scratch + "/cwd";
        fs::create_directories(work_directory);
        old_directory = fs::current_path().string();
        fs::current_path(work_directory);
        SpoolFixture::SetUp();
    }
    void TearDown() override {
        SpoolFixture::TearDown();
        if (scratch.empty()) return;
        fs::current_path(old_directory);
        std::error_code ignored;
        fs::remove_all(scratch, ignored);
    }
};

TEST_P(HostileSpool, FinishesAndWritesOnlyUnderTheMimeDirectory) {
    const HostileCase& c = GetParam();
    const auto size =
        static_cast<std::size_t>(static_cast<double>(light_run ? c.light : c.full) * run_scale());
    {
        SpoolWriter out(spool + "/rx000001.822");
        c.write(out, size);
        ASSERT_TRUE(out.close()) << "could not write the spool file";
    }
    const auto before = tree(scratch);
    const long peak_before = peak_resident_kib();

    const int result = SMTPRecvNext(&record);

    const long growth = peak_resident_kib() - peak_before;
    if (c.expect.result_known) {
        EXPECT_EQ(result, c.expect.result);
    }
    EXPECT_TRUE(result == 0 || result == 1) << result;
    ASSERT_NE(record.file, nullptr);
    EXPECT_EQ(std::string(record.file), spool + "/rx000001.822");
    if (c.expect.subject != nullptr) {
        ASSERT_NE(record.subject, nullptr);
        EXPECT_STREQ(record.subject, c.expect.subject);
    }

    // Nothing changed outside mime_dir; everything new is under it.
    const auto after = tree(scratch);
    for (const auto& [path, file_size] : before) {
        const auto found = after.find(path);
        ASSERT_NE(found, after.end()) << path << " is gone";
        if (!under(path, mime)) {
            EXPECT_EQ(found->second, file_size) << path << " changed";
        }
    }
    for (const auto& [path, file_size] : after) {
        if (before.count(path) == 0) {
            EXPECT_TRUE(under(path, mime)) << path << " was written";
        }
    }

    // Every listed file exists under mime_dir.
    const auto listed = attachments();
    EXPECT_GE(static_cast<long>(listed.size()), c.expect.min_files);
    for (const std::string& path : listed) {
        EXPECT_TRUE(under(path, mime)) << path;
        EXPECT_EQ(after.count(path), 1u) << path << " listed but not on disk";
    }

    // The record lists one path per file, so its size grows with the
    // number of parts; the content itself is never held.
    if (resident_size_meaningful) {
        const long allowed_kib = 32 * 1024 + static_cast<long>(listed.size()) / 8;
        EXPECT_LT(growth, allowed_kib) << "peak resident size grew by " << growth << " KiB";
    }
    RecordProperty("size_parameter", std::to_string(size));
    RecordProperty("files_listed", std::to_string(listed.size()));
    RecordProperty("peak_growth_kib", std::to_string(growth));
}

INSTANTIATE_TEST_SUITE_P(Cases, HostileSpool, ::testing::ValuesIn(hostile_cases),
                         [](const auto& info) { return std::string(info.param.label); });

}  // namespace
}  // namespace qbsmtp::test
