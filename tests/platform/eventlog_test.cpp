// The event log: one JSON line per event in events.jsonl, rotation, and
// handle rules. Syslog is turned off with QBSMTP_NO_SYSLOG.
#include <stdlib.h>
#include <sys/stat.h>

#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"
#include "support/temp_prefix.h"

namespace qbsmtp::os {
namespace {

const MessageResource catalogue[] = {
    {0xC0004E95, "bind() fallito: %1\r\n"},
    {0x800027D8, "Questa porta SMTP \xe8 gi\xe0 utilizzata\r\n"},
    {0x40004EA3, "Inizio sessione ricezione\r\n"},
};

class EventLogTest : public ::testing::Test {
  protected:
    test::TempPrefix prefix;
    HANDLE source = nullptr;

    void SetUp() override {
        setenv("QBSMTP_NO_SYSLOG", "1", 1);
        set_module_resources({catalogue, 3, nullptr, 0});
        source = RegisterEventSourceA(nullptr, "QBSMTP");
        ASSERT_NE(source, nullptr);
    }
    void TearDown() override { DeregisterEventSource(source); }

    std::vector<std::string> lines(const char* name = "events.jsonl") {
        std::vector<std::string> result;
        std::istringstream in(prefix.read(name));
        for (std::string line; std::getline(in, line);) result.push_back(line);
        return result;
    }
};

TEST_F(EventLogTest, EachEventIsOneJsonLine) {
    const char* strings[] = {"Address \"in\" use\r\n"};
    ASSERT_TRUE(
        ReportEventA(source, EVENTLOG_ERROR_TYPE, 0, 0xC0004E95, nullptr, 1, 0, strings, nullptr));
    ASSERT_TRUE(ReportEventA(source, EVENTLOG_WARNING_TYPE, 0, 0x800027D8, nullptr, 0, 0, nullptr,
                             nullptr));
    const char* pair[] = {"alpha", "\x80uro"};
    ASSERT_TRUE(
        ReportEventA(source, EVENTLOG_INFORMATION_TYPE, 0, 14, nullptr, 2, 0, pair, nullptr));
    auto all = lines();
    ASSERT_EQ(all.size(), 3u);
    std::regex shape(
        R"re(\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z","source":"QBSMTP",)re"
        R"re("id":"0x[0-9A-F]{8}","type":"(error|warning|information)","strings":\[.*\],"text":".*"\})re");
    for (const std::string& line : all) EXPECT_TRUE(std::regex_match(line, shape)) << line;
    EXPECT_NE(
        all[0].find(R"("id":"0xC0004E95","type":"error","strings":["Address \"in\" use\r\n"],)"
                    R"("text":"bind() fallito: Address \"in\" use"})"),
        std::string::npos)
        << all[0];
    EXPECT_NE(all[1].find("\"type\":\"warning\",\"strings\":[],\"text\":\"Questa porta SMTP "
                          "\xc3\xa8 gi\xc3\xa0 utilizzata\"}"),
              std::string::npos)
        << all[1];
    EXPECT_NE(all[2].find("\"id\":\"0x0000000E\",\"type\":\"information\",\"strings\":[\"alpha\","
                          "\"\xe2\x82\xacuro\"],\"text\":\"alpha \xe2\x82\xacuro\"}"),
              std::string::npos)
        << all[2];
}

TEST_F(EventLogTest, ConcurrentReportsNeverInterleave) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            std::string text(300 + t, static_cast<char>('a' + t));
            const char* strings[] = {text.c_str()};
            for (int i = 0; i < 50; ++i)
                ReportEventA(source, EVENTLOG_INFORMATION_TYPE, 0, 0x40004EA3, nullptr, 1, 0,
                             strings, nullptr);
        });
    }
    for (auto& thread : threads) thread.join();
    auto all = lines();
    ASSERT_EQ(all.size(), 200u);
    for (const std::string& line : all) {
        EXPECT_EQ(line.front(), '{');
        EXPECT_EQ(line.back(), '}');
    }
}

TEST_F(EventLogTest, RotatesOnceAtTheLimit) {
    posix::set_event_log_rotation_limit(1000);
    std::string text(150, 'x');
    const char* strings[] = {text.c_str()};
    for (int i = 0; i < 12; ++i)
        ASSERT_TRUE(
            ReportEventA(source, EVENTLOG_ERROR_TYPE, 0, 14, nullptr, 1, 0, strings, nullptr));
    struct stat current;
    ASSERT_EQ(::stat(prefix.file("events.jsonl").c_str(), &current), 0);
    EXPECT_LE(current.st_size, 1000);
    auto rotated = lines("events.jsonl.1");
    EXPECT_FALSE(rotated.empty());
    EXPECT_EQ(::stat(prefix.file("events.jsonl.2").c_str(), &current), -1);
    // Nothing is lost between the two files, as long as only one rotation ran.
    EXPECT_LE(lines().size() + rotated.size(), 12u);
    EXPECT_GE(lines().size() + rotated.size(), 3u);
}

TEST_F(EventLogTest, HandlesAndFaults) {
    EXPECT_EQ(RegisterEventSourceA("\\\\elsewhere", "QBSMTP"), nullptr);
    EXPECT_EQ(RegisterEventSourceA(nullptr, ""), nullptr);
    HANDLE other = RegisterEventSourceA(nullptr, "Other");
    ASSERT_NE(other, nullptr);
    EXPECT_TRUE(DeregisterEventSource(other));
    EXPECT_FALSE(DeregisterEventSource(other));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(ReportEventA(other, EVENTLOG_ERROR_TYPE, 0, 14, nullptr, 0, 0, nullptr, nullptr));
    EXPECT_FALSE(
        ReportEventA(nullptr, EVENTLOG_ERROR_TYPE, 0, 14, nullptr, 0, 0, nullptr, nullptr));
    {
        FaultScope scope(Op::ReportEventA, 1, ERROR_DISK_FULL);
        EXPECT_FALSE(
            ReportEventA(source, EVENTLOG_ERROR_TYPE, 0, 14, nullptr, 0, 0, nullptr, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
    }
    {
        FaultScope scope(Op::RegisterEventSourceA, 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(RegisterEventSourceA(nullptr, "QBSMTP"), nullptr);
    }
    EXPECT_TRUE(lines().empty());
}

TEST_F(EventLogTest, SyslogHalfDoesNotStopTheFileHalf) {
    unsetenv("QBSMTP_NO_SYSLOG");
    const char* strings[] = {"x"};
    EXPECT_TRUE(ReportEventA(source, EVENTLOG_WARNING_TYPE, 0, 0xC0004E95, nullptr, 1, 0, strings,
                             nullptr));
    EXPECT_EQ(lines().size(), 1u);
}

}  // namespace
}  // namespace qbsmtp::os
