// decomposition_cases_test.cpp: the golden cases of tests/data/decomposition.
// Each NAME.822 is a spool file as intake writes it, NAME.expect what
// SMTPRecvNext must make of it: the record's fields and every file it lists
// (the format is in tests/data/decomposition/README). A case runs in a spool
// directory of its own under one prefix for the whole process, so the
// binary can run every case in one process as well as ctest one by one.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "decomposition/mime_type_map.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/multi_string.h"
#include "frame/paths.h"
#include "platform/os.h"
#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "support/event_log.h"
#include "support/temp_prefix.h"

namespace qbsmtp::test {
namespace {

namespace fs = std::filesystem;

const fs::path cases_dir = fs::path(QBSMTP_SOURCE_DIR) / "tests/data/decomposition";
const std::string oracle = std::string(QBSMTP_SOURCE_DIR) + "/tests/decomposition/email_oracle.py";

// What the host leaves in date; a message without a usable Date keeps it.
constexpr std::uint64_t host_date = 0x0123456789ABCDEFull;

std::vector<std::string> case_names() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(cases_dir))
        if (entry.path().extension() == ".822") names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The escapes of .expect values: \r \n \t \\ and \xHH.
std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        if (c == 'x' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += c == 'r' ? '\r' : c == 'n' ? '\n' : c == 't' ? '\t' : c;
        }
    }
    return out;
}

std::string visible(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        char hex[8];
        if (c == '\\') {
            out += "\\\\";
        } else if (c >= 32 && c < 127) {
            out += static_cast<char>(c);
        } else {
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += c == '\r' ? "\\r" : c == '\n' ? "\\n" : hex;
        }
    }
    return out;
}

// 100 ns ticks since 1601 of "YYYY-MM-DD HH:MM:SS" UTC, counted here by the
// civil calendar rather than by the platform.
std::uint64_t utc_ticks(const std::string& text) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &year, &month, &day, &hour, &minute, &second);
    const std::int64_t y = year - (month <= 2 ? 1 : 0);
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const std::int64_t days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 584694;
    return static_cast<std::uint64_t>(days * 86400 + hour * 3600 + minute * 60 + second) *
           10'000'000u;
}

struct FileExpect {
    std::string extension;  // "-": none
    std::string how;        // "=", "sha256" or "python"
    std::string value;
};

struct EventExpect {
    std::uint32_t id;
    std::vector<std::string> strings;  // "?" matches any string
};

struct FaultExpect {
    os::Op op;
    unsigned nth;
    os::DWORD error;
};

struct Expect {
    int result = 1;
    std::optional<std::string> sender, sender_name, subject;
    std::uint64_t date = host_date;
    std::string lists[6];  // packed bytes of to, to_name, cc, cc_name, bcc, bcc_name
    std::vector<FileExpect> files;
    std::vector<EventExpect> events;
    std::size_t leftover = 0;  // files under mime that are not listed
    bool rank_table = true;
    unsigned char ranks[QBSMTP_SUBTYPE_COUNT];
    std::vector<FaultExpect> faults;
};

os::Op op_named(const std::string& name) {
    const std::pair<const char*, os::Op> ops[] = {
        {"LocalAlloc", os::Op::LocalAlloc},
        {"CreateFileA", os::Op::CreateFileA},
        {"WriteFile", os::Op::WriteFile},
        {"ReadFile", os::Op::ReadFile},
        {"CloseHandle", os::Op::CloseHandle},
        {"SystemTimeToFileTime", os::Op::SystemTimeToFileTime},
    };
    for (const auto& [text, op] : ops)
        if (name == text) return op;
    ADD_FAILURE() << "no fault op " << name;
    return os::Op::Count;
}

Expect read_expect(const fs::path& path) {
    Expect e;
    std::fill(std::begin(e.ranks), std::end(e.ranks), 10);
    const char* list_keys[] = {"to", "to_name", "cc", "cc_name", "bcc", "bcc_name"};
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        const std::size_t space = line.find(' ');
        const std::string key = line.substr(0, space);
        const std::string raw = space == std::string::npos ? "" : line.substr(space + 1);
        const std::string value = unescape(raw);
        std::istringstream words(raw);
        if (key == "result") {
            words >> e.result;
        } else if (key == "sender") {
            e.sender = value;
        } else if (key == "sender_name") {
            e.sender_name = value;
        } else if (key == "subject") {
            e.subject = value;
        } else if (key == "date") {
            e.date = utc_ticks(raw);
        } else if (key == "leftover") {
            words >> e.leftover;
        } else if (key == "rank") {
            std::string code;
            int rank = 0;
            words >> code >> rank;
            if (code == "none") {
                e.rank_table = false;
            } else {
                e.ranks[std::stoi(code)] = static_cast<unsigned char>(rank);
            }
        } else if (key == "fault") {
            std::string op;
            FaultExpect f{};
            words >> op >> f.nth >> f.error;
            f.op = op_named(op);
            e.faults.push_back(f);
        } else if (key == "file") {
            FileExpect f;
            words >> f.extension >> f.how;
            const std::size_t at = raw.find(' ', raw.find(' ') + 1);
            f.value = at == std::string::npos ? "" : unescape(raw.substr(at + 1));
            e.files.push_back(f);
        } else if (key == "event") {
            EventExpect ev{};
            std::string id;
            words >> id;
            ev.id = static_cast<std::uint32_t>(std::stoul(id, nullptr, 16));
            const std::string rest = id.size() < value.size() ? value.substr(id.size() + 1) : "";
            for (std::size_t from = 0; from <= rest.size() && !rest.empty();) {
                const std::size_t bar = std::min(rest.find('|', from), rest.size());
                ev.strings.push_back(rest.substr(from, bar - from));
                from = bar + 1;
            }
            e.events.push_back(ev);
        } else {
            bool known = false;
            for (int i = 0; i < 6; ++i) {
                if (key != list_keys[i]) continue;
                e.lists[i] += value + '\0';
                known = true;
            }
            EXPECT_TRUE(known) << "unknown key " << key << " in " << path;
        }
    }
    for (std::string& list : e.lists)
        if (!list.empty()) list += '\0';
    return e;
}

// What a command prints.
std::string output_of(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return out;
}

// One prefix for the process: the module as SMTPRecvInit leaves it, with
// the MIME types of the cases (see the README) and no listener. The
// platform takes its prefix at its first use, so this is set up before any
// test of the binary runs, the large-message test included.
const std::string& prefix_path() {
    static TempPrefix prefix;
    static const bool ready = [] {
        prefix.write("mime.types",
                     "text/plain txt\ntext/html html htm\napplication/pdf pdf\nimage/gif gif\n"
                     "message/rfc822 eml\n");
        setenv("QBSMTP_MIME_TYPES", prefix.file("mime.types").c_str(), 1);
#ifdef _WIN32  // the same types where Windows keeps them
        std::string types;
        for (const auto& [type, extension] : {std::pair{"text/plain", ".txt"},
                                              {"text/html", ".html"},
                                              {"application/pdf", ".pdf"},
                                              {"image/gif", ".gif"},
                                              {"message/rfc822", ".eml"}})
            types += "[HKEY_CLASSES_ROOT\\MIME\\Database\\Content Type\\" + std::string(type) +
                     "]\n\"Extension\"=\"" + extension + "\"\n";
        write_registry(types);
#endif
        os::set_module_resources(module_resources());
        event_reporter.source_handle = os::RegisterEventSourceA(nullptr, "QBSMTP");
        mime_type_map.load();
        return true;
    }();
    return ready ? prefix.path() : prefix.path();
}

struct ModuleFirst : ::testing::Environment {
    void SetUp() override { prefix_path(); }
};
::testing::Environment* const module_first = ::testing::AddGlobalTestEnvironment(new ModuleFirst);

std::string text_of(std::int32_t length, const char* text) {
    if (text == nullptr) return length == 0 ? "<null>" : "<null with a length>";
    const std::string value(text);
    return static_cast<std::int32_t>(value.size()) == length ? value : "<length differs>" + value;
}

std::string list_bytes(const char* block) {
    MultiString list;
    list.block = const_cast<char*>(block);
    std::string bytes(list.text(), list.byte_size());
    list.release();
    return bytes;
}

// The module joins paths with the platform's separator.
const std::string sep(1, os::path_separator);

class Decomposition : public ::testing::TestWithParam<std::string> {
  protected:
    std::string spool;
    std::string mime;
    MailRecord record{};

    void SetUp() override {
        spool = prefix_path() + sep + "spool-" + GetParam();
        mime = spool + sep + "mime";
        // Another fixture of the binary may have run before and closed the
        // event source, or pointed the event log's reader elsewhere.
        setenv("QBSMTP_PREFIX", prefix_path().c_str(), 1);
        if (event_reporter.source_handle == nullptr)
            event_reporter.source_handle = os::RegisterEventSourceA(nullptr, "QBSMTP");
        spool_dir = spool.c_str();
        mime_dir = mime.c_str();
        ASSERT_EQ(ensure_directory(mime_dir), 1);
    }
    void TearDown() override {
        os::fault_clear();
        for (char* block :
             {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
              record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments})
            if (block != nullptr) os::LocalFree(block);
        std::error_code ignored;
        fs::remove_all(spool, ignored);
    }
    // The spool file in place, as intake leaves it.
    std::string place(const std::string& name) {
        const std::string path = spool + sep + name + ".822";
        fs::copy_file(cases_dir / (name + ".822"), path);
        return path;
    }
    std::string with_places(const std::string& text, const std::string& file) const {
        std::string out = text;
        for (const auto& [mark, value] :
             {std::pair<std::string, std::string>{"{mime}/", mime + sep},
              std::pair<std::string, std::string>{"{mime}", mime},
              std::pair<std::string, std::string>{"{file}", file}}) {
            for (std::size_t at; (at = out.find(mark)) != std::string::npos;)
                out.replace(at, mark.size(), value);
        }
        return out;
    }
    void check_file(const std::string& path, const FileExpect& f, std::size_t index,
                    const std::string& spooled) {
        SCOPED_TRACE("file " + std::to_string(index + 1) + ": " + path);
        const std::string name = path.substr(path.rfind(sep) + 1);
        const std::string extension = f.extension == "-" ? "" : f.extension;
        EXPECT_EQ(path.substr(0, mime.size() + 1), mime + sep);
        EXPECT_EQ(name.size(), 8 + extension.size());
        EXPECT_EQ(name.substr(0, 8).find_first_not_of("0123456789"), std::string::npos);
        EXPECT_EQ(name.substr(std::min<std::size_t>(8, name.size())), extension);
        const std::string content = read_file(path);
        if (f.how == "=") {
            EXPECT_EQ(visible(content), visible(f.value));
        } else if (f.how == "sha256") {
            EXPECT_EQ(output_of("python3 " + oracle + " sha256 '" + path + "'"), f.value + "\n");
        } else if (f.how == "python") {
            const std::string decoded =
                output_of("python3 " + oracle + " part '" + spooled + "' " + f.value);
            EXPECT_TRUE(content == decoded)
                << content.size() << " bytes, Python's email decodes " << decoded.size() << ": "
                << visible(decoded.substr(0, 200));
        } else {
            ADD_FAILURE() << "unknown file check " << f.how;
        }
    }
};

TEST_P(Decomposition, Case) {
    const Expect e = read_expect(cases_dir / (GetParam() + ".expect"));
#ifdef _WIN32
    for (const FileExpect& f : e.files)
        if (f.how == "sha256" || f.how == "python")
            GTEST_SKIP()
                << "the Python oracle is a Linux program, which Windows programs can't start";
    if (GetParam() == "date_refused")
        GTEST_SKIP() << "Wine's SystemTimeToFileTime takes 29 February of a common year";
#endif
    const std::string spooled = place(GetParam());
    record.date = {static_cast<std::uint32_t>(host_date),
                   static_cast<std::uint32_t>(host_date >> 32)};
    record.subtype_rank = e.rank_table ? e.ranks : nullptr;
    const std::size_t events_before = read_events().size();
    int result;
    {
        os::FaultScope scope;
        for (const FaultExpect& f : e.faults) os::fault_arm(f.op, f.nth, f.error);
        result = SMTPRecvNext(&record);
    }
    EXPECT_EQ(result, e.result);
    EXPECT_EQ(text_of(record.file_length, record.file), spooled);
    EXPECT_EQ(text_of(record.sender_length, record.sender), e.sender.value_or("<null>"));
    EXPECT_EQ(text_of(record.sender_name_length, record.sender_name),
              e.sender_name.value_or("<null>"));
    EXPECT_EQ(visible(text_of(record.subject_length, record.subject)),
              visible(e.subject.value_or("<null>")));
    EXPECT_EQ(std::uint64_t{record.date.high} << 32 | record.date.low, e.date);
    const char* lists[] = {record.to,       record.to_names, record.cc,
                           record.cc_names, record.bcc,      record.bcc_names};
    const char* list_keys[] = {"to", "to_name", "cc", "cc_name", "bcc", "bcc_name"};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(visible(list_bytes(lists[i])), visible(e.lists[i])) << list_keys[i];
    EXPECT_EQ(record.temporary_failure, 0);

    std::vector<std::string> listed;
    for (const char* p = record.attachments; p != nullptr && *p != '\0'; p += std::strlen(p) + 1)
        listed.emplace_back(p);
    ASSERT_EQ(listed.size(), e.files.size()) << "files listed";
    for (std::size_t i = 0; i < listed.size(); ++i) check_file(listed[i], e.files[i], i, spooled);
    std::size_t present = 0;
    for (const auto& entry : fs::directory_iterator(mime)) present += entry.is_regular_file();
    EXPECT_EQ(present, listed.size() + e.leftover) << "files under " << mime;

    const auto events = read_events();
    ASSERT_EQ(events.size() - events_before, e.events.size()) << "events reported";
    for (std::size_t i = 0; i < e.events.size(); ++i) {
        const LoggedEvent& got = events[events_before + i];
        EXPECT_EQ(got.id, e.events[i].id) << std::hex << got.id;
        ASSERT_EQ(got.strings.size(), e.events[i].strings.size()) << std::hex << got.id;
        for (std::size_t s = 0; s < got.strings.size(); ++s) {
            if (e.events[i].strings[s] != "?") {
                EXPECT_EQ(got.strings[s], with_places(e.events[i].strings[s], spooled));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Spool, Decomposition, ::testing::ValuesIn(case_names()),
                         [](const auto& info) { return info.param; });

// Pickup itself, which no single spool file shows: an empty spool leaves
// the record as it was (not even its text fields are read), and a message
// is taken again at every call until the host removes it.
class Pickup : public Decomposition {};

TEST_P(Pickup, EmptySpoolThenTheSameFileUntilItIsRemoved) {
    MailRecord untouched;
    std::memset(&untouched, 0xA5, sizeof untouched);
    MailRecord probe = untouched;
    write_file(spool + sep + "rx000001.tmp", "Subject: x\r\n\r\nbody");  // not a message yet
    EXPECT_EQ(SMTPRecvNext(&probe), 1);
    EXPECT_EQ(std::memcmp(&probe, &untouched, sizeof probe), 0);

    const std::string spooled = place(GetParam());
    for (int call = 0; call < 2; ++call) {
        MailRecord again{};
        EXPECT_EQ(SMTPRecvNext(&again), 1);
        EXPECT_EQ(text_of(again.file_length, again.file), spooled);
        EXPECT_NE(again.attachments, nullptr);
        for (char* block : {again.file, again.sender, again.sender_name, again.subject, again.to,
                            again.to_names, again.attachments}) {
            if (block != nullptr) os::LocalFree(block);
        }
    }
    fs::remove(spooled);
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(record.file, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Spool, Pickup, ::testing::Values("plain_walkthrough"));

}  // namespace
}  // namespace qbsmtp::test
