// Transcripts of the SMTP dialogue against the running module over
// loopback: replies byte for byte, the flag rules, and what the trace
// headers of a message show of the stored HELO domain and reverse path.

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "platform/os_fault.h"
#include "reception/session_dialogue.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

const std::string host = test_host_name;
const std::string ok_helo = "250 " + host + "\r\n";
const std::string ok_mail = "250 OK\r\n";
const std::string ok_rcpt = "250 recipient OK\r\n";
const std::string ok_noop = "250 Quillbox SMTP OK\r\n";
const std::string ok_rset = "250 Reset\r\n";
const std::string go_ahead = "354 Start mail input; end with <CRLF>.<CRLF>\r\n";
const std::string accepted = "250 Mail accepted\r\n";
const std::string need_helo = "503 Need HELO command\r\n";
const std::string need_mail = "503 Need MAIL command\r\n";
const std::string sender_again = "503 Sender already specified\r\n";
const std::string unknown = "500 Syntax error, command unrecognised\r\n";
const std::string refused = "502 command not implemented\r\n";
const std::string syntax = "501 Syntax error in parameters or arguments\r\n";
const std::string no_domain = "501 HELO needs to specify a domain\r\n";
const std::string closing = "221 " + host + " Service closing transmission\r\n";

std::string help_text() {
    std::string text;
    for (const char* line : help_lines) text += std::string(line) + "\r\n";
    return text;
}

// One step: bytes sent, then exactly these bytes expected back. An empty
// expectation means the server stays silent for a moment.
struct Step {
    std::string send;
    std::string expect;
};

struct DialogueCase {
    const char* name;
    std::vector<Step> steps;
    // When set, the last step accepted a message whose trace headers must
    // carry this reverse path and this HELO domain.
    std::optional<std::string> return_path = std::nullopt;
    std::optional<std::string> helo_domain = std::nullopt;
};

// A DATA exchange with an empty message, for cases that look at the trace
// headers.
std::vector<Step> with_message(std::vector<Step> steps) {
    steps.push_back({"DATA\r\n", go_ahead});
    steps.push_back({".\r\n", accepted});
    return steps;
}

std::string repeated(char c, std::size_t count) {
    return std::string(count, c);
}

std::vector<DialogueCase> dialogue_cases() {
    const std::string domain_510 = repeated('d', 510);
    const std::string path_511 = repeated('p', 511);
    return {
        {"helo_word_in_any_case_domain_keeps_case",
         with_message({{"helo Sender.Example\r\n", ok_helo}, {"MAIL FROM:<a@b>\r\n", ok_mail}}),
         "a@b", "Sender.Example"},
        {"ehlo_is_not_a_command", {{"EHLO sender\r\n", unknown}}},
        {"helo_without_domain_changes_no_flag",
         {{"HELO\r\n", no_domain}, {"MAIL FROM:<p>\r\n", need_helo}}},
        {"helo_with_blank_gives_empty_domain",
         with_message({{"HELO \r\n", ok_helo}, {"MAIL FROM:<p>\r\n", ok_mail}}), "p", ""},
        {"heloxy_greets_and_keeps_domain",
         with_message({{"HELO first\r\n", ok_helo},
                       {"HELOXY\r\n", ok_helo},
                       {"MAIL FROM:<p>\r\n", ok_mail}}),
         "p", "first"},
        {"heloxy_alone_sets_greeted", {{"HELOXY\r\n", ok_helo}, {"MAIL FROM:<p>\r\n", ok_mail}}},
        {"mail_before_helo_is_refused_but_stored",
         with_message({{"MAIL FROM:<early@x>\r\n", need_helo}, {"HELO h\r\n", ok_helo}}), "early@x",
         "h"},
        {"mail_in_lower_case_keeps_path_case",
         with_message({{"HELO h\r\n", ok_helo}, {"mail from:<Path@X>\r\n", ok_mail}}), "Path@X",
         "h"},
        {"mail_with_empty_path",
         with_message({{"HELO h\r\n", ok_helo}, {"MAIL FROM:<>\r\n", ok_mail}}), "", "h"},
        {"mail_with_blank_before_bracket",
         {{"HELO h\r\n", ok_helo}, {"MAIL FROM: <p>\r\n", syntax}, {"MAIL FROM:<q>\r\n", ok_mail}}},
        {"mail_with_wrong_word", {{"HELO h\r\n", ok_helo}, {"MAIL TO:<p>\r\n", syntax}}},
        {"mail_with_text_behind_path_stores_path_sets_no_flag",
         with_message({{"HELO h\r\n", ok_helo},
                       {"MAIL FROM:<p> SIZE=5\r\n", syntax},
                       {"RCPT TO:<x>\r\n", need_mail}}),
         "p", "h"},
        {"mail_path_may_span_lines",
         with_message({{"HELO h\r\n", ok_helo}, {"MAIL FROM:<a\r\nb>\r\n", ok_mail}}), "a\r\nb",
         "h"},
        {"second_mail_needs_rset_or_helo",
         {{"HELO h\r\n", ok_helo},
          {"MAIL FROM:<a>\r\n", ok_mail},
          {"MAIL FROM:<b>\r\n", sender_again},
          {"RSET\r\n", ok_rset},
          {"MAIL FROM:<c>\r\n", ok_mail},
          {"HELO h2\r\n", ok_helo},
          {"MAIL FROM:<d>\r\n", ok_mail}}},
        {"rset_keeps_greeted",
         {{"HELO h\r\n", ok_helo}, {"RSET\r\n", ok_rset}, {"MAIL FROM:<a>\r\n", ok_mail}}},
        {"rset_with_text_changes_nothing",
         {{"HELO h\r\n", ok_helo},
          {"MAIL FROM:<a>\r\n", ok_mail},
          {"RSET x\r\n", syntax},
          {"MAIL FROM:<b>\r\n", sender_again}}},
        {"rcpt_after_mail_with_any_text",
         {{"HELO h\r\n", ok_helo},
          {"MAIL FROM:<a>\r\n", ok_mail},
          {"RCPT\r\n", ok_rcpt},
          {"RCPT TO:<x@y>\r\n", ok_rcpt},
          {"rcpt whatever at all\r\n", ok_rcpt}}},
        {"rcpt_before_mail", {{"HELO h\r\n", ok_helo}, {"RCPT TO:<x@y>\r\n", need_mail}}},
        {"quit_with_text_keeps_connection", {{"QUIT now\r\n", syntax}}},
        {"noop", {{"NOOP\r\n", ok_noop}, {"noop\r\n", ok_noop}}},
        {"noopx", {{"NOOPX\r\n", syntax}}},
        {"help_with_and_without_text",
         {{"HELP anything\r\n", help_text()}, {"HELP\r\n", help_text()}}},
        {"short_and_unknown_words",
         {{"AB\r\n", unknown}, {"ABCD\r\n", unknown}, {"1HELO x\r\n", unknown}, {"\r\n", unknown}}},
        {"bytes_above_127_are_no_letters",
         {{"\xC8LO x\r\n", unknown}, {"HEL\xCF x\r\n", unknown}, {"HELO\xA0x\r\n", ok_helo}}},
        {"commands_not_implemented",
         {{"VRFY name\r\n", refused},
          {"EXPN list\r\n", refused},
          {"SEND FROM:<a>\r\n", refused},
          {"SOML FROM:<a>\r\n", refused},
          {"SAML FROM:<a>\r\n", refused},
          {"TURN\r\n", refused}}},
        {"lone_lf_does_not_end_a_line", {{"NOOP\n", ""}, {"more\n", ""}, {"\r\n", syntax}}},
        {"lone_cr_does_not_end_a_line", {{"NOOP\r", ""}, {"x\r\n", syntax}}},
        {"data_with_text_on_line", {{"DATA now\r\n", syntax}}},
        {"data_needs_no_sender", with_message({}), "", ""},
        {"several_commands_in_one_block",
         {{"HELO a\r\nMAIL FROM:<b>\r\nRCPT TO:<c>\r\nRSET\r\nNOOP\r\n",
           ok_helo + ok_mail + ok_rcpt + ok_rset + ok_noop}}},
        {"helo_domain_of_510_bytes_is_kept",
         with_message({{"HELO " + domain_510 + "\r\n", ok_helo}}), "", domain_510},
        {"helo_domain_of_511_bytes_is_refused_and_old_one_stays",
         with_message({{"HELO old\r\n", ok_helo},
                       {"HELO " + domain_510 + "e\r\n", "500 Line too long\r\n"},
                       {"HELO " + domain_510 + "efghij\r\n", "500 Line too long\r\n"}}),
         "", "old"},
        {"reverse_path_of_511_bytes_is_kept",
         with_message({{"HELO h\r\n", ok_helo}, {"MAIL FROM:<" + path_511 + ">\r\n", ok_mail}}),
         path_511, "h"},
        {"reverse_path_of_512_bytes_is_refused_and_old_one_stays",
         with_message({{"HELO h\r\n", ok_helo},
                       {"MAIL FROM:<old>\r\n", ok_mail},
                       {"RSET\r\n", ok_rset},
                       {"MAIL FROM:<" + path_511 + "q>\r\n", "500 Reverse path too long\r\n"},
                       {"MAIL FROM:<" + path_511 + "qrs\r\n", "500 Reverse path too long\r\n"},
                       {"RCPT TO:<x>\r\n", need_mail}}),
         "old", "h"},
    };
}

// Test names say what a case is; its bytes say nothing.
void PrintTo(const DialogueCase& c, std::ostream* out) {
    *out << c.name;
}

class DialogueTranscript : public ::testing::TestWithParam<DialogueCase> {};

TEST_P(DialogueTranscript, RepliesAndStoredFields) {
    const DialogueCase& c = GetParam();
    ReceptionFixture module;
    auto client = module.connect();
    for (const Step& step : c.steps) {
        ASSERT_TRUE(client->send(step.send));
        if (step.expect.empty()) {
            EXPECT_TRUE(client->silent_for(100)) << "reply to " << step.send;
        } else {
            EXPECT_EQ(client->read_bytes(step.expect.size()), step.expect)
                << "reply to " << step.send;
        }
    }
    // Nothing stray is queued, and the session still answers.
    EXPECT_EQ(client->command("NOOP"), ok_noop);
    if (!c.return_path) return;
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    const std::string text = read_whole_file(files[0]);
    const std::string head = "Return-Path: <" + *c.return_path + ">\r\nReceived: from " +
                             *c.helo_domain + " by " + host + " with SMTP ; ";
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
}

INSTANTIATE_TEST_SUITE_P(EdgeCases, DialogueTranscript, ::testing::ValuesIn(dialogue_cases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SessionDialogue, GreetingNamesHostAndThread) {
    ReceptionFixture module;
    std::string greeting;
    auto client = module.connect(&greeting);
    EXPECT_TRUE(std::regex_match(
        greeting, std::regex("220 " + host + " Quillbox SMTP Service ready \\(tid=[0-9]+\\)\r\n")))
        << greeting;
}

TEST(SessionDialogue, QuitGets221AndTheConnectionEnds) {
    ReceptionFixture module;
    auto client = module.connect();
    ASSERT_TRUE(client->send("QUIT\r\n"));
    EXPECT_EQ(client->read_to_close(), closing);
}

TEST(SessionDialogue, PeerThatStopsSendingStillGets221) {
    ReceptionFixture module;
    auto client = module.connect();
    client->shutdown_write();
    EXPECT_EQ(client->read_to_close(), closing);
}

TEST(SessionDialogue, ConnectionLostInsideMailLiteralGets501Then221) {
    ReceptionFixture module;
    auto client = module.connect();
    ASSERT_TRUE(client->send("MAIL FR"));
    client->shutdown_write();
    EXPECT_EQ(client->read_to_close(), syntax + closing);
}

TEST(SessionDialogue, HelpAndRefusalsAnswerEvenWhenTheLineNeverEnds) {
    ReceptionFixture module;
    auto client = module.connect();
    ASSERT_TRUE(client->send("HELP me"));
    client->shutdown_write();
    EXPECT_EQ(client->read_to_close(), help_text() + closing);
}

TEST(SessionDialogue, HelpLeavesInOneSend) {
    ReceptionFixture module;
    auto client = module.connect();
    EXPECT_EQ(client->command("NOOP"), ok_noop);
    os::fault_clear();  // restarts the count of send calls
    EXPECT_EQ(client->command("HELP"), help_text());
    EXPECT_EQ(help_text().size(), 976u);
    EXPECT_EQ(os::fault_calls(os::Op::send), 1u);
}

TEST(SessionDialogue, CommandSplitOverManyReads) {
    ReceptionFixture module;
    auto client = module.connect();
    const std::string lines = "HELO split.example\r\nMAIL FROM:<s@x>\r\nNOOP\r\n";
    const std::string replies = ok_helo + ok_mail + ok_noop;
    std::string got;
    for (char c : lines) {
        ASSERT_TRUE(client->send(std::string(1, c)));
        // Each byte travels alone, so the server sees one byte per recv.
        if (c == '\n')
            got += client->read_reply();
        else
            EXPECT_TRUE(client->silent_for(2));
    }
    EXPECT_EQ(got, replies);
}

}  // namespace
}  // namespace qbsmtp::test
