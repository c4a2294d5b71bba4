// hostile_spool_test.cpp: spool files made to hurt SMTPRecvNext, one case
// each in tests/data/reliability/hostile_spool.txt. Each is taken apart to
// the end: the call returns, everything it writes lies under the mime
// directory (nothing else in the spool tree or the working directory
// changes), every listed file exists, the fields behind the hostile part are
// still read, and (without a sanitizer) the peak resident size stays bounded.
#include <stdlib.h>

#include <cstring>
#include <sstream>

#include "reliability.h"

namespace qbsmtp::test {
namespace {

namespace fs = std::filesystem;

struct HostileCase {
    std::string name, result, subject;
    std::size_t full = 0, light = 0;
    long files = 0;
    std::vector<std::string> steps;
};

void PrintTo(const HostileCase& c, std::ostream* out) {
    *out << c.name;
}

std::vector<HostileCase> load_cases() {
    std::ifstream in(QBSMTP_SOURCE_DIR "/tests/data/reliability/hostile_spool.txt");
    std::vector<HostileCase> cases;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (line.rfind("case ", 0) != 0) {
            cases.back().steps.push_back(line);
            continue;
        }
        HostileCase& c = cases.emplace_back();
        std::string full, light;
        std::istringstream words(line.substr(5));
        words >> c.name >> full >> light >> c.result >> c.files >> std::ws;
        std::getline(words, c.subject);
        c.full = std::stoul(full) << (full.back() == 'M' ? 20 : 0);
        c.light = std::stoul(light) << (light.back() == 'M' ? 20 : 0);
    }
    return cases;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

// The spool file of a case of size n: the trace lines, then its steps.
void write_case(const HostileCase& c, std::size_t n, std::ostream& out) {
    out << "Return-Path: <hostile@sender.example>\r\n"
           "Received: from a by b with SMTP ; 23 Nov 2026 08:00:00 +0000\r\n";
    for (const std::string& step : c.steps) {
        const std::string verb = step.substr(0, 4),
                          text = replace_all(step.substr(5), "\\r\\n", "\r\n");
        if (verb == "text") {
            out << text;
        } else if (verb == "each" || verb == "back") {
            for (std::size_t k = 0; k < n; ++k)
                out << replace_all(text, "{i}", std::to_string(verb == "each" ? k : n - 1 - k));
        } else if (verb == "fill" || verb == "junk") {
            std::size_t seed_length = 0;  // junk: the seed, then the tail
            std::mt19937 random(verb == "junk" ? std::stoul(text, &seed_length) : 0);
            const std::string tail =
                verb == "junk" ? text.substr(std::min(seed_length + 1, text.size())) : "";
            std::string block(1u << 16, text[0]);
            for (std::size_t done = 0; done < n; done += block.size()) {
                if (verb == "junk")
                    for (char& byte : block) byte = static_cast<char>(random());
                out << block << tail;
            }
        } else {
            ADD_FAILURE() << "no such step: " << step;
        }
    }
}

class HostileSpool : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileSpool, FinishesAndWritesOnlyUnderTheMimeDirectory) {
    const HostileCase& c = GetParam();
    ::setenv("TMPDIR", "/dev/shm", 1);  // the files are large: keep them in memory
    ReceptionFixture module({}, false);
    const std::string sep(1, os::path_separator);  // as the module joins names
    const std::string spool = module.spool(), mime = spool + sep + "mime",
                      file = spool + sep + "rx000001.822";
    fs::create_directories(spool + sep + "cwd");
    ASSERT_EQ(module.start(), 1);
    SMTPRecvStop();  // decomposition alone
    {
        std::ofstream out(file, std::ios::binary);
        write_case(c, static_cast<std::size_t>((light_run ? c.light : c.full) * run_scale), out);
        ASSERT_TRUE(out.flush()) << "could not write " << file;
    }
    const auto size = fs::file_size(file);
    const fs::path old_directory = fs::current_path();
    fs::current_path(spool + sep + "cwd");  // a relative path would show here
    const long peak_before = resident_kib("VmHWM:");
    MailRecord record{};
    const int result = SMTPRecvNext(&record);
    const long growth = resident_kib("VmHWM:") - peak_before;
    fs::current_path(old_directory);

    EXPECT_TRUE(c.result == "-" ? result == 0 || result == 1 : result == std::stoi(c.result))
        << result;
    ASSERT_NE(record.file, nullptr);
    EXPECT_EQ(record.file, file);
    if (!c.subject.empty()) {
        EXPECT_STREQ(record.subject, c.subject.c_str());
    }
    // The spool file stays as it was; all else the call wrote is under mime_dir.
    EXPECT_EQ(fs::file_size(file), size);
    for (const auto& entry : fs::recursive_directory_iterator(spool)) {
        const std::string path = entry.path().string();
        EXPECT_TRUE(path.rfind(mime, 0) == 0 || path == file || path == spool + sep + "cwd")
            << path;
    }
    long listed = 0;
    for (const char* p = record.attachments; p != nullptr && *p != '\0';
         p += std::strlen(p) + 1, ++listed)
        EXPECT_TRUE(std::string(p).rfind(mime + sep, 0) == 0 && fs::exists(p)) << p << " listed";
    EXPECT_GE(listed, c.files);

    // The record lists one path per file, so it grows with the parts; the
    // content itself is never held.
    if (resident_size_meaningful) {
        EXPECT_LT(growth, 32 * 1024 + listed / 8) << "KiB more at the peak";
    }
    for (char* block :
         {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
          record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments})
        if (block != nullptr) os::LocalFree(block);
}

INSTANTIATE_TEST_SUITE_P(Cases, HostileSpool, ::testing::ValuesIn(load_cases()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qbsmtp::test
