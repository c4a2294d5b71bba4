// Plays each case of tests/data/sending: a record goes to SMTPSend, a
// scripted relay answers, and the bytes the relay saw, the result,
// temporary_failure and the events are compared with what the case says.
//
// Lines of a case (texts as in support/transcript.h), in any order except
// that the relay's and the fault lines keep theirs:
//   setting LINE / class EXT TYPE / host NAME / tz ZONE / mask HEX
//                    a settings line; a type for an extension under
//                    HKEY_CLASSES_ROOT; the HostName (default gw.test);
//                    the TZ (default XXX-1, one hour east); the log mask
//   sender TEXT / subject TEXT / to TEXT / attach PATH
//                    the record (no sender or subject line: a null
//                    pointer); a PATH without '/' is below the prefix
//   file NAME, = TEXT
//                    a file below the prefix, and its bytes
//   fault OP N ERROR [always] / nofault / init NAME RESULT / noinit
//                    in order, before SMTPSend: arm or clear a fault, call
//                    SMTPSendInit(NAME) with this result, or leave out the
//                    first SMTPSendInit("127.0.0.1")
//   R TEXT / r TEXT / R! close|silent|stall
//                    the relay's next piece with CR LF / as it stands, or
//                    its act, once it has all the lines written above it
//   W TEXT / w TEXT  what the relay must have received, with CR LF / as
//                    it stands (no R or W line: no connection at all)
//   result N / temporary_failure N / event TEXT
//                    the outcome; every event not listed must be absent

#include <gtest/gtest.h>

#include <stdlib.h>

#include <fstream>
#include <map>

#include "frame/module_state.h"
#include "platform/os_fault.h"
#include "platform/os_tls.h"
#include "qbsmtp/qbsmtp.h"
#include "support/event_log.h"
#include "support/scripted_relay.h"
#include "support/temp_prefix.h"
#include "support/transcript.h"

namespace qbsmtp::test {
namespace {

std::string multi_string(const std::vector<std::string>& entries) {
    std::string block;
    for (const std::string& entry : entries) block += entry + '\0';
    return block + '\0';
}

class Sending : public ::testing::TestWithParam<std::string> {};

TEST_P(Sending, WireResultAndEvents) {
    const std::vector<TranscriptLine> lines = read_transcript(GetParam());
    TempPrefix prefix;
    std::map<std::string, std::string> values = {{"host", "gw.test"}, {"tz", "XXX-1"}};
    std::string settings, classes, wire, file_name;
    std::vector<std::string> to, attachments, events;
    std::vector<ScriptedRelay::Step> script;
    std::size_t wire_lines = 0;
    const TranscriptLine* previous = nullptr;
    for (const TranscriptLine& line : lines) {
        const std::string& t = line.text;
        if (line.tag == "setting") settings += t + "\n";
        if (line.tag == "class")
            classes += "[HKEY_CLASSES_ROOT\\" + t.substr(0, t.find(' ')) +
                       "]\n\"Content Type\"=\"" + t.substr(t.find(' ') + 1) + "\"\n";
        if (line.tag == "to") to.push_back(decode(t));
        if (line.tag == "attach")
            attachments.push_back(t.find('/') == 0 ? decode(t) : prefix.file(t));
        if (line.tag == "file") write_file(prefix.file(file_name = t), "");
        if (line.tag == "=")
            write_file(prefix.file(file_name), read_file(prefix.file(file_name)) + decode(t));
        if (line.tag == "event") events.push_back(t);
        if (line.tag == "W" || line.tag == "w") {
            wire += t + (line.tag == "W" ? "\\r\\n" : "");
            wire_lines = 0;
            for (std::size_t at = 0; (at = wire.find("\\r\\n", at)) != std::string::npos; at += 4)
                ++wire_lines;
        }
        if (line.tag == "R" || line.tag == "r" || line.tag == "R!") {
            const bool same_step =
                previous != nullptr && (previous->tag == "R" || previous->tag == "r");
            if (!same_step || line.tag == "R!") script.push_back({wire_lines, {}});
            if (line.tag == "R!")
                script.back().act = t == "close"    ? ScriptedRelay::Act::close
                                    : t == "silent" ? ScriptedRelay::Act::silent
                                                    : ScriptedRelay::Act::stall;
            else
                script.back().pieces.push_back(decode(t) + (line.tag == "R" ? "\r\n" : ""));
        }
        if (!line.tag.empty() && line.tag[0] != '=') values[line.tag] = t;
        previous = &line;
    }
    // A build without TLS refuses every secured relay before it speaks.
    if (settings.find("\"RelaySecurity\"=dword:") != std::string::npos &&
        settings.find("\"RelaySecurity\"=dword:00000000") == std::string::npos &&
        !os::tls_supported())
        GTEST_SKIP() << "this build has no TLS";
#ifdef _WIN32
    if (transcript_name(GetParam()) == "no_send_init")
        GTEST_SKIP() << "Wine connects to the all-zero address, which Windows refuses";
#endif
    if (!set_zone(values["tz"]))
        GTEST_SKIP() << "the zone " << values["tz"] << " is not the system's";
    const bool talks = !script.empty() || !wire.empty();
    ScriptedRelay relay(script);
    write_file(prefix.file("services"), "smtp " + std::to_string(relay.port()) + "/tcp\n");
    write_registry("[HKEY_LOCAL_MACHINE\\" + std::string(settings_key) + "]\n\"HostName\"=\"" +
                   decode(values["host"]) + "\"\n" + settings + classes);
    process_attach(nullptr);
    serve_smtp_on(relay.port());
    if (values.count("mask")) SMTPSetLogging(std::stoul(values["mask"], nullptr, 16));
    if (!values.count("noinit")) {
        EXPECT_EQ(SMTPSendInit("127.0.0.1"), 1);
    }
    for (const TranscriptLine& line : lines) {
        SCOPED_TRACE("line " + std::to_string(line.number));
        if (line.tag == "fault") arm_fault(line.text);
        if (line.tag == "nofault") os::fault_clear();
        if (line.tag == "init") {
            const std::size_t blank = line.text.find(' ');
            EXPECT_EQ(SMTPSendInit(line.text.substr(0, blank).c_str()),
                      std::stoi(line.text.substr(blank + 1)));
        }
    }

    const bool has_sender = values.count("sender") != 0, has_subject = values.count("subject") != 0;
    std::string sender = decode(values["sender"]), subject = decode(values["subject"]);
    std::string to_block = multi_string(to), attachment_block = multi_string(attachments);
    MailRecord record{};
    record.sender = has_sender ? sender.data() : nullptr;
    record.sender_length = static_cast<int32_t>(sender.size());
    record.subject = has_subject ? subject.data() : nullptr;
    record.subject_length = static_cast<int32_t>(subject.size());
    record.to = to.empty() ? nullptr : to_block.data();
    record.attachments = attachments.empty() ? nullptr : attachment_block.data();
    record.temporary_failure = 7;  // so that the call is seen to write it
    const std::time_t from = std::time(nullptr);
    EXPECT_EQ(SMTPSend(&record), std::stoi(values["result"]));
    const std::time_t to_time = std::time(nullptr);
    os::fault_clear();
    EXPECT_EQ(record.temporary_failure, std::stoi(values["temporary_failure"]));
    if (talks) {
        EXPECT_EQ(difference(wire, relay.received(), from, to_time), "");
    } else {
        EXPECT_EQ(relay.stop(), 0) << "a connection although the case has no relay lines";
    }
    expect_events(events, event_lines(prefix.path(), "PREFIX"), from, to_time);
}

INSTANTIATE_TEST_SUITE_P(Data, Sending,
                         ::testing::ValuesIn(transcript_files(QBSMTP_SOURCE_DIR
                                                              "/tests/data/sending")),
                         [](const auto& info) { return transcript_name(info.param); });

}  // namespace
}  // namespace qbsmtp::test
