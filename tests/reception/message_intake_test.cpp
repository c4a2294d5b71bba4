// Message intake through a real connection: what lands in the spool file
// for each shape of text, the trace headers, several messages on one
// connection, 8-bit data, a large message, and the debug copy.

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <regex>
#include <set>
#include <string>

#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/message_intake.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

const std::string accepted = "250 Mail accepted\r\n";

struct TextCase {
    const char* name;
    std::string input;   // behind the 354, end marker included
    std::string stored;  // behind the trace headers
};

// The examples of the dot and line-end rules, with the bytes spelled out.
std::vector<TextCase> text_cases() {
    return {
        {"only_end_marker", ".\r\n", ""},
        {"empty_line_then_marker", "\r\n.\r\n", ""},
        {"one_line", "a\r\n.\r\n", "a"},
        {"two_lines", "a\r\nb\r\n.\r\n", "a\r\nb"},
        {"last_line_empty", "a\r\n\r\n.\r\n", "a\r\n"},
        {"doubled_dot_alone", "..\r\n.\r\n", "."},
        {"doubled_dot_before_text", "a\r\n..b\r\n.\r\n", "a\r\n.b"},
        {"single_dot_before_text_is_dropped", ".x\r\n.\r\n", "x"},
        {"single_dot_on_later_line", "a\r\n.x\r\n.\r\n", "a\r\nx"},
        {"lone_cr_kept", "a\rb\r\n.\r\n", "a\rb"},
        {"lone_lf_kept", "a\nb\r\n.\r\n", "a\nb"},
        {"dot_behind_lone_lf_is_text", "a\n.\r\n.\r\n", "a\n."},
        {"cr_before_line_end", "a\r\r\n.\r\n", "a\r"},
        {"dot_cr_then_text", ".\rx\r\n.\r\n", "\rx"},
        {"dot_cr_then_text_on_later_line", "a\r\n.\rx\r\n.\r\n", "a\r\n\rx"},
        {"dot_cr_cr_lf_on_later_line", "a\r\n.\r\r\n.\r\n", "a\r\n\r"},
        // Beyond the examples: every line loses its leading dot.
        {"dots_on_every_line", ".a\r\n..b\r\n...c\r\n.\r\n", "a\r\n.b\r\n..c"},
        {"marker_needs_line_start", "a.\r\n.\r\n", "a."},
    };
}

// Test names say what a case is; its bytes say nothing.
void PrintTo(const TextCase& c, std::ostream* out) {
    *out << c.name;
}

class ReceiveText : public ::testing::TestWithParam<TextCase> {};

TEST_P(ReceiveText, StoresTextByteForByte) {
    const TextCase& c = GetParam();
    ReceptionFixture module;
    auto client = module.connect();
    EXPECT_EQ(transmit(*client, c.input), accepted);
    EXPECT_EQ(client->command("QUIT").substr(0, 4), "221 ");
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(body_behind_trace_headers(read_whole_file(files[0])), c.stored);
}

INSTANTIATE_TEST_SUITE_P(Examples, ReceiveText, ::testing::ValuesIn(text_cases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(MessageIntake, EmptyMessageIsExactlyTheTwoTraceHeaders) {
    ReceptionFixture module;
    auto client = module.connect();
    EXPECT_EQ(transmit(*client, ".\r\n", "relay.example", "who@where"), accepted);
    client->command("NOOP");  // the file is renamed before the next command is read
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    const std::string text = read_whole_file(files[0]);
    const std::regex shape(
        "Return-Path: <who@where>\r\n"
        "Received: from relay\\.example by mx\\.example\\.test with SMTP ; "
        "[1-9][0-9]? (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{2} "
        "[0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4}\r\n");
    EXPECT_TRUE(std::regex_match(text, shape)) << text;
    const std::string name = files[0].substr(module.spool().size() + 1);
    EXPECT_TRUE(std::regex_match(name, std::regex("rx[0-9]{6}\\.822"))) << name;
}

TEST(MessageIntake, UnknownTimeZoneStampsPlusZero) {
    ReceptionFixture module;
    auto client = module.connect();
    os::FaultScope zone_fails(os::Op::GetTimeZoneInformation, 1, os::ERROR_INVALID_FUNCTION);
    EXPECT_EQ(transmit(*client, ".\r\n"), accepted);
    client->command("NOOP");
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    const std::string text = read_whole_file(files[0]);
    EXPECT_EQ(text.substr(text.size() - 7), "+0000\r\n") << text;
}

TEST(MessageIntake, TwoMessagesOnOneConnectionWithOneHelo) {
    ReceptionFixture module;
    auto client = module.connect();
    EXPECT_EQ(transmit(*client, "first\r\n.\r\n", "h", "one@x"), accepted);
    EXPECT_EQ(transmit(*client, "second\r\n.\r\n", "", "two@x"), accepted);
    client->command("NOOP");
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 2u);
    std::multiset<std::string> seen;
    for (const auto& f : files) {
        const std::string text = read_whole_file(f);
        seen.insert(text.substr(0, text.find("\r\n")) + "|" + body_behind_trace_headers(text));
    }
    EXPECT_EQ(seen, (std::multiset<std::string>{"Return-Path: <one@x>|first",
                                                "Return-Path: <two@x>|second"}));
}

TEST(MessageIntake, EightBitAndNulBytesAreStoredUnchanged) {
    ReceptionFixture module;
    auto client = module.connect();
    std::string text;
    for (int b = 0; b < 256; ++b)
        if (b != '\r' && b != '\n') text += static_cast<char>(b);
    text += "\r\n";
    text += std::string("\0\0\xFF\x80", 4);
    EXPECT_EQ(transmit(*client, text + "\r\n.\r\n"), accepted);
    client->command("NOOP");
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(body_behind_trace_headers(read_whole_file(files[0])), text);
}

TEST(MessageIntake, TwentyMegabyteMessage) {
    ReceptionFixture module;
    auto client = module.connect();
    // Lines of 998 pseudo-random bytes (a linear congruential sequence, cheap
    // enough for the sanitizer builds), none a line end, none a leading dot.
    std::string text;
    text.reserve((20u << 20) + 1024);
    std::uint32_t state = 20;
    while (text.size() < (20u << 20)) {
        for (int i = 0; i < 998; ++i) {
            state = state * 1664525u + 1013904223u;
            char b = static_cast<char>(state >> 24);
            if (b == '\r' || b == '\n' || (i == 0 && b == '.')) b = 'x';
            text += b;
        }
        text += "\r\n";
    }
    const std::size_t stored_size = text.size() - 2;  // the last line end goes
    text += ".\r\n";
    EXPECT_EQ(transmit(*client, text), accepted);
    client->command("NOOP");
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    const std::string file = read_whole_file(files[0]);
    const std::size_t body = file.size() - body_behind_trace_headers(file).size();
    ASSERT_EQ(file.size() - body, stored_size);
    EXPECT_EQ(file.compare(body, stored_size, text, 0, stored_size), 0);
}

TEST(MessageIntake, DebugCopyUnderItsTemporaryName) {
    ReceptionFixture module;
    SMTPSetLogging(QBSMTP_LOG_DEBUG_COPY);
    auto client = module.connect();
    EXPECT_EQ(transmit(*client, "kept twice\r\n.\r\n"), accepted);
    client->command("NOOP");
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    std::string copy_name = files[0].substr(module.spool().size() + 1);
    copy_name.replace(copy_name.size() - 4, 4, ".tmp");
    EXPECT_EQ(read_whole_file(module.spool() + "/Debug/" + copy_name), read_whole_file(files[0]));
}

TEST(MessageIntake, RepeatedMessageGetsIts250ButNoSecondFile) {
    ReceptionFixture module;
    SMTPSetLogging(QBSMTP_LOG_DEBUG_COPY);
    auto client = module.connect();
    const std::string text = "Message-Id: <same@example.test>\r\n\r\nbody\r\n.\r\n";
    EXPECT_EQ(transmit(*client, text), accepted);
    EXPECT_EQ(transmit(*client, text, ""), accepted);
    client->command("NOOP");
    EXPECT_EQ(module.spool_files(".822").size(), 1u);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    // The debug copy is made before the filter looks, so for the repeat too.
    std::size_t copies = 0;
    for (const auto& entry : std::filesystem::directory_iterator(module.spool() + "/Debug"))
        copies += entry.is_regular_file();
    EXPECT_EQ(copies, 2u);
}

TEST(MessageIntake, NoDebugCopyWithoutTheMaskBit) {
    ReceptionFixture module;
    SMTPSetLogging(QBSMTP_LOG_SESSIONS);
    auto client = module.connect();
    EXPECT_EQ(transmit(*client, "x\r\n.\r\n"), accepted);
    client->command("NOOP");
    EXPECT_EQ(module.spool_files(".822").size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(module.spool() + "/Debug"));
}

struct StampCase {
    const char* name;
    os::SYSTEMTIME time;
    os::DWORD zone_id;
    os::LONG bias, standard_bias, daylight_bias;
    const char* stamp;
};

// Test names say what a case is; its bytes say nothing.
void PrintTo(const StampCase& c, std::ostream* out) {
    *out << c.name;
}

class TimeStamp : public ::testing::TestWithParam<StampCase> {};

TEST_P(TimeStamp, ZoneArithmeticAndTwoDigitYear) {
    const StampCase& c = GetParam();
    os::TIME_ZONE_INFORMATION zone{};
    zone.Bias = c.bias;
    zone.StandardBias = c.standard_bias;
    zone.DaylightBias = c.daylight_bias;
    char buffer[64];
    format_time_stamp(buffer, sizeof buffer, c.time, zone_bias_minutes(c.zone_id, zone));
    EXPECT_STREQ(buffer, c.stamp);
}

INSTANTIATE_TEST_SUITE_P(Zones, TimeStamp,
                         ::testing::Values(StampCase{"utc_plus_one_standard",
                                                     {2000, 6, 1, 5, 14, 3, 7, 0},
                                                     1,
                                                     -60,
                                                     0,
                                                     -60,
                                                     "5 Jun 00 14:03:07 +0100\r\n"},
                                           StampCase{"east_in_daylight_time",
                                                     {2000, 6, 1, 5, 14, 3, 7, 0},
                                                     2,
                                                     -60,
                                                     0,
                                                     -60,
                                                     "5 Jun 00 14:03:07 +0200\r\n"},
                                           StampCase{"west_five_thirty",
                                                     {1999, 12, 5, 31, 23, 59, 59, 0},
                                                     1,
                                                     330,
                                                     0,
                                                     0,
                                                     "31 Dec 99 23:59:59 -0530\r\n"},
                                           StampCase{"standard_bias_counts",
                                                     {2024, 1, 1, 1, 0, 0, 0, 0},
                                                     1,
                                                     300,
                                                     60,
                                                     -60,
                                                     "1 Jan 24 00:00:00 -0600\r\n"},
                                           StampCase{"unknown_zone",
                                                     {2005, 3, 3, 9, 8, 7, 6, 0},
                                                     0,
                                                     -120,
                                                     0,
                                                     -60,
                                                     "9 Mar 05 08:07:06 +0000\r\n"},
                                           StampCase{"failed_zone_query",
                                                     {2005, 3, 3, 9, 8, 7, 6, 0},
                                                     0xFFFFFFFF,
                                                     -120,
                                                     0,
                                                     0,
                                                     "9 Mar 05 08:07:06 +0000\r\n"}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace qbsmtp::test
