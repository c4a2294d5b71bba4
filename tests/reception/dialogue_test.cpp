// Plays each dialogue of tests/data/dialogue against the running module
// over loopback, and compares the replies, the files left in the spool
// directory and the events with what the dialogue expects.
//
// Lines of a dialogue (texts as in support/transcript.h):
//   setting LINE     a line of .reg text for the settings key
//   tz ZONE          the TZ of the run (default XXX-1, one hour east)
//   mask HEX         SMTPSetLogging with this mask, before the first client
//   C TEXT / c TEXT  the client sends TEXT with CR LF / as it stands;
//                    consecutive lines go out in one send
//   S TEXT           the next line the server sends is TEXT and CR LF
//   close            the client ends its sending direction
//   connect          the client closes; a new one connects
//   fault OP N ERROR [always] / nofault
//                    the Nth call of OP from now on fails with ERROR
//   file NAME, F TEXT
//                    a file below the spool directory and its lines,
//                    joined by CR LF (the last has none). rx#1, rx#2 ...
//                    stand for the spool names in the order of their
//                    numbers; every file not listed must be absent
//   event TEXT       the next event: its id and insertion strings joined
//                    by " | ", SPOOL for the spool directory; every event
//                    not listed must be absent (debug texts aside)
// At the end of each connection the client ends its sending direction,
// and the server must then close without a further byte.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "support/reception_fixture.h"
#include "support/transcript.h"

namespace qbsmtp::test {
namespace {

namespace fs = std::filesystem;

const std::map<std::string, os::Op> fault_ops = {
    {"CreateFileA", os::Op::CreateFileA},
    {"WriteFile", os::Op::WriteFile},
    {"ReadFile", os::Op::ReadFile},
    {"FlushFileBuffers", os::Op::FlushFileBuffers},
    {"CopyFileA", os::Op::CopyFileA},
    {"MoveFileA", os::Op::MoveFileA},
    {"DeleteFileA", os::Op::DeleteFileA},
    {"CreateDirectoryA", os::Op::CreateDirectoryA},
    {"send", os::Op::send},
    {"recv", os::Op::recv},
    {"GetTimeZoneInformation", os::Op::GetTimeZoneInformation},
};

// Spool names rxNNNNNN as rx#1, rx#2 ... in the order of their numbers,
// which count up from a start drawn at random (and may wrap at a million).
void label_spool_names(std::vector<std::string*> texts) {
    std::vector<long> numbers;
    const auto each_name = [&](const std::function<void(std::string&, std::size_t)>& act) {
        for (std::string* text : texts)
            for (std::size_t at = 0; (at = text->find("rx", at)) != std::string::npos; at += 2)
                if (at + 8 <= text->size() &&
                    std::all_of(text->begin() + at + 2, text->begin() + at + 8, ::isdigit))
                    act(*text, at);
    };
    each_name([&](std::string& text, std::size_t at) {
        numbers.push_back(std::stol(text.substr(at + 2, 6)));
    });
    const bool wrapped =
        !numbers.empty() && *std::max_element(numbers.begin(), numbers.end()) -
                                    *std::min_element(numbers.begin(), numbers.end()) >
                                500000;
    for (long& n : numbers) n += wrapped && n < 500000 ? 1000000 : 0;
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    each_name([&](std::string& text, std::size_t at) {
        long n = std::stol(text.substr(at + 2, 6));
        n += wrapped && n < 500000 ? 1000000 : 0;
        const auto index = std::lower_bound(numbers.begin(), numbers.end(), n) - numbers.begin();
        text.replace(at, 8, "rx#" + std::to_string(index + 1));
    });
}

class Dialogue : public ::testing::TestWithParam<std::string> {};

TEST_P(Dialogue, RepliesFilesAndEvents) {
    const std::vector<TranscriptLine> lines = read_transcript(GetParam());
    std::string settings, zone = "XXX-1";
    for (const TranscriptLine& line : lines) {
        if (line.tag == "setting") settings += line.text + "\n";
        if (line.tag == "tz") zone = line.text;
    }
    ::setenv("TZ", zone.c_str(), 1);
    ::tzset();
    const std::time_t from = std::time(nullptr);
    ReceptionFixture module(settings);
    for (const TranscriptLine& line : lines)
        if (line.tag == "mask") SMTPSetLogging(std::stoul(line.text, nullptr, 16));
    std::map<std::string, std::string> expected_files;
    std::vector<TranscriptLine> expected_events;
    std::string* file = nullptr;
    auto client = std::make_unique<SmtpTestClient>(module.port());
    std::string pending;  // client lines not sent yet
    const auto flush = [&] {
        if (!pending.empty()) {
            EXPECT_TRUE(client->send(pending));
        }
        pending.clear();
    };
    const auto end_connection = [&] {
        flush();
        client->shutdown_write();
        EXPECT_EQ(client->read_to_close(), "") << "replies nobody expected";
    };
    for (const TranscriptLine& line : lines) {
        SCOPED_TRACE("line " + std::to_string(line.number) + ": " + line.tag + " " + line.text);
        if (line.tag == "C" || line.tag == "c") {
            pending += decode(line.text) + (line.tag == "C" ? "\r\n" : "");
        } else if (line.tag == "S") {
            flush();
            EXPECT_EQ(
                difference(line.text + "\\r\\n", client->read_line(), from, std::time(nullptr)),
                "");
        } else if (line.tag == "close") {
            flush();
            client->shutdown_write();
        } else if (line.tag == "connect") {
            end_connection();
            module.wait_idle();  // so that the sessions' events come in order
            client = std::make_unique<SmtpTestClient>(module.port());
        } else if (line.tag == "fault") {
            flush();
            char op[40] = {}, always[8] = {};
            unsigned nth = 0, error = 0;
            ASSERT_GE(std::sscanf(line.text.c_str(), "%39s %u %u %7s", op, &nth, &error, always),
                      3);
            ASSERT_EQ(fault_ops.count(op), 1u) << "no such operation here";
            os::fault_arm(fault_ops.at(op), nth, error, std::string(always) == "always");
        } else if (line.tag == "nofault") {
            flush();
            os::fault_clear();
        } else if (line.tag == "file") {
            file = &expected_files[line.text];
        } else if (line.tag == "F") {
            ASSERT_NE(file, nullptr) << "F line before any file line";
            *file += line.text + "\\r\\n";
        } else if (line.tag == "event") {
            expected_events.push_back(line);
        }
    }
    end_connection();
    module.wait_idle();
    os::fault_clear();
    const std::time_t to = std::time(nullptr);

    std::vector<std::string> events = event_lines();
    std::vector<std::string> names, paths;
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(module.spool())) {
        if (!entry.is_regular_file()) continue;
        names.push_back(fs::relative(entry.path(), module.spool()).string());
        paths.push_back(entry.path().string());
    }
    std::vector<std::string*> texts;
    for (std::string& name : names) texts.push_back(&name);
    for (std::string& event : events) {
        for (std::size_t at; (at = event.find(module.spool())) != std::string::npos;)
            event.replace(at, module.spool().size(), "SPOOL");
        texts.push_back(&event);
    }
    label_spool_names(texts);
    for (std::size_t i = 0; i < names.size(); ++i) files[names[i]] = read_file(paths[i]);

    for (const auto& [name, content] : files) {
        SCOPED_TRACE("file " + name);
        ASSERT_EQ(expected_files.count(name), 1u) << "a file nobody expected";
        // The last line of a file has no CR LF of its own.
        const std::string& expected = expected_files[name];
        EXPECT_EQ(difference(expected.substr(0, expected.size() - 4), content, from, to), "");
    }
    EXPECT_EQ(files.size(), expected_files.size()) << "files expected but absent";
    for (std::size_t i = 0; i < std::max(events.size(), expected_events.size()); ++i) {
        ASSERT_LT(i, expected_events.size()) << "an event nobody expected: " << events[i];
        SCOPED_TRACE("line " + std::to_string(expected_events[i].number));
        ASSERT_LT(i, events.size()) << "an event expected but absent";
        EXPECT_EQ(difference(expected_events[i].text, events[i], from, to), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Data, Dialogue,
                         ::testing::ValuesIn(transcript_files(QBSMTP_SOURCE_DIR
                                                              "/tests/data/dialogue")),
                         [](const auto& info) { return transcript_name(info.param); });

}  // namespace
}  // namespace qbsmtp::test
