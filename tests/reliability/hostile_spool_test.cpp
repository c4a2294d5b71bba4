// hostile_spool_test.cpp: spool files made to hurt SMTPRecvNext, one case
// each in tests/data/reliability/hostile_spool.txt. Each is taken apart to
// the end: the call returns, everything it writes lies under the mime
// directory (nothing else in the spool tree or the working directory
// changes), every listed file exists, the fields behind the hostile part are
// still read, and (without a sanitizer) the peak resident size stays bounded.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "process_probe.h"
#include "qbsmtp/qbsmtp.h"
#include "support/reception_fixture.h"

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

std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char next = text[i] == '\\' && i + 1 < text.size() ? text[++i] : '\0';
        out += next == 'r' ? '\r' : next == 'n' ? '\n' : next != '\0' ? next : text[i];
    }
    return out;
}

// The spool file of a case of size n: the trace lines, then its steps.
void write_case(const HostileCase& c, std::size_t n, std::ostream& out) {
    out << "Return-Path: <hostile@sender.example>\r\n"
           "Received: from a by b with SMTP ; 23 Nov 2026 08:00:00 +0000\r\n";
    for (const std::string& step : c.steps) {
        const std::string verb = step.substr(0, 4), text = unescape(step.substr(5));
        if (verb == "text") {
            out << text;
        } else if (verb == "fill") {
            const std::string block(1u << 20, text[0]);
            for (std::size_t left = n, part; left > 0; left -= part)
                out.write(block.data(),
                          static_cast<std::streamsize>(part = std::min(left, block.size())));
        } else if (verb == "each" || verb == "back") {
            for (std::size_t k = 0; k < n; ++k) {
                std::string item = text;
                const std::string i = std::to_string(verb == "each" ? k : n - 1 - k);
                for (std::size_t at; (at = item.find("{i}")) != std::string::npos;)
                    item.replace(at, 3, i);
                out << item;
            }
        } else if (verb == "junk") {
            std::size_t seed_length = 0;
            std::mt19937 random(static_cast<unsigned>(std::stoul(text, &seed_length)));
            const std::string tail = text.substr(std::min(seed_length + 1, text.size()));
            std::string block(1u << 16, '\0');
            for (std::size_t done = 0; done < n; done += block.size()) {
                for (char& byte : block) byte = static_cast<char>(random());
                out << block << tail;
            }
        } else {
            ADD_FAILURE() << "no such step: " << step;
        }
    }
}

// Path and size of every file under root, to find what a call changed.
std::map<std::string, std::uintmax_t> tree(const std::string& root) {
    std::map<std::string, std::uintmax_t> files;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        files[entry.path().string()] = entry.is_regular_file() ? entry.file_size() : 0;
    return files;
}

bool under(const std::string& path, const std::string& directory) {
    return path.rfind(directory + "/", 0) == 0;
}

class HostileSpool : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileSpool, FinishesAndWritesOnlyUnderTheMimeDirectory) {
    const HostileCase& c = GetParam();
    ::setenv("TMPDIR", "/dev/shm", 1);  // the files are large: keep them in memory
    ReceptionFixture module({}, false);
    const std::string spool = module.spool(), mime = spool + "/mime",
                      file = spool + "/rx000001.822";
    fs::create_directories(spool + "/cwd");
    ASSERT_EQ(module.start(), 1);
    SMTPRecvStop();  // decomposition alone
    {
        std::ofstream out(file, std::ios::binary);
        write_case(c, light_run ? c.light : c.full, out);
        ASSERT_TRUE(out.flush()) << "could not write " << file;
    }
    const fs::path old_directory = fs::current_path();
    fs::current_path(spool + "/cwd");  // a relative path would show here
    const auto before = tree(spool);
    const long peak_before = peak_resident_kib();
    MailRecord record{};
    const int result = SMTPRecvNext(&record);
    const long growth = peak_resident_kib() - peak_before;
    fs::current_path(old_directory);

    EXPECT_TRUE(c.result == "-" ? result == 0 || result == 1 : result == std::stoi(c.result))
        << result;
    ASSERT_NE(record.file, nullptr);
    EXPECT_EQ(record.file, file);
    if (!c.subject.empty()) {
        EXPECT_STREQ(record.subject, c.subject.c_str());
    }

    // Nothing changed outside mime_dir; everything new is under it.
    const auto after = tree(spool);
    for (const auto& [path, size] : before) {
        const auto found = after.find(path);
        EXPECT_TRUE(under(path, mime) || (found != after.end() && found->second == size)) << path;
    }
    for (const auto& entry : after)
        EXPECT_TRUE(before.count(entry.first) || under(entry.first, mime)) << entry.first;
    long listed = 0;
    for (const char* p = record.attachments; p != nullptr && *p != '\0';
         p += std::strlen(p) + 1, ++listed)
        EXPECT_TRUE(under(p, mime) && after.count(p)) << p << " listed, not under mime_dir";
    EXPECT_GE(listed, c.files);

    // The record lists one path per file, so it grows with the parts; the
    // content itself is never held.
    if (resident_size_meaningful) {
        EXPECT_LT(growth, 32 * 1024 + listed / 8) << "KiB more at the peak";
    }
    for (char* block :
         {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
          record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments})
        if (block != nullptr) LocalFree(block);
}

INSTANTIATE_TEST_SUITE_P(Cases, HostileSpool, ::testing::ValuesIn(load_cases()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace qbsmtp::test
