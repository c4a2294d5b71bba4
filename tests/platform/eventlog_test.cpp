// The event log's record: one JSON line per event in events.jsonl, in UTF-8,
// with the catalogue text filled in; concurrent reports never interleave.
#include <stdlib.h>

#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/os.h"
#include "support/temp_prefix.h"

namespace qbsmtp::os {
namespace {

const MessageResource catalogue[] = {
    {0xC0004E95, "bind() fallito: %1\r\n"},
    {0x800027D8, "Questa porta SMTP \xe8 gi\xe0 utilizzata\r\n"},
};

class EventLog : public ::testing::Test {
  protected:
    test::TempPrefix prefix;
    HANDLE source = nullptr;

    void SetUp() override {
        setenv("QBSMTP_NO_SYSLOG", "1", 1);
        set_module_resources({catalogue, 2, nullptr, 0});
        source = RegisterEventSourceA(nullptr, "QBSMTP");
        ASSERT_NE(source, nullptr);
    }
    void TearDown() override { DeregisterEventSource(source); }

    // Every line of events.jsonl, parsed by a JSON reader of its own.
    std::vector<nlohmann::json> records() {
        std::vector<nlohmann::json> result;
        std::istringstream in(prefix.read("events.jsonl"));
        for (std::string line; std::getline(in, line);) {
            result.push_back(nlohmann::json::parse(line, nullptr, false));
            EXPECT_FALSE(result.back().is_discarded()) << line;
        }
        return result;
    }
};

TEST_F(EventLog, EachEventIsOneJsonRecord) {
    const char* strings[] = {"Address \"in\" use\\\r\n"};
    ASSERT_TRUE(
        ReportEventA(source, EVENTLOG_ERROR_TYPE, 0, 0xC0004E95, nullptr, 1, 0, strings, nullptr));
    ASSERT_TRUE(ReportEventA(source, EVENTLOG_WARNING_TYPE, 0, 0x800027D8, nullptr, 0, 0, nullptr,
                             nullptr));
    const char* pair[] = {"alpha", "\x80uro"};  // code page 1252: 0x80 is the euro sign
    ASSERT_TRUE(
        ReportEventA(source, EVENTLOG_INFORMATION_TYPE, 0, 14, nullptr, 2, 0, pair, nullptr));
    const auto all = records();
    ASSERT_EQ(all.size(), 3u);
    const std::regex utc_time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
    for (const auto& record : all) {
        EXPECT_TRUE(std::regex_match(record.value("time", ""), utc_time)) << record;
        EXPECT_EQ(record.value("source", ""), "QBSMTP");
    }
    using Strings = std::vector<std::string>;
    EXPECT_EQ(all[0]["id"], "0xC0004E95");
    EXPECT_EQ(all[0]["type"], "error");
    EXPECT_EQ(all[0]["strings"].get<Strings>(), Strings{"Address \"in\" use\\\r\n"});
    EXPECT_EQ(all[0]["text"], "bind() fallito: Address \"in\" use\\");  // the final line end goes
    EXPECT_EQ(all[1]["type"], "warning");
    EXPECT_EQ(all[1]["strings"].get<Strings>(), Strings{});
    EXPECT_EQ(all[1]["text"], "Questa porta SMTP \u00e8 gi\u00e0 utilizzata");
    // An id without a catalogue text: its strings joined by blanks.
    EXPECT_EQ(all[2]["id"], "0x0000000E");
    EXPECT_EQ(all[2]["type"], "information");
    EXPECT_EQ(all[2]["strings"].get<Strings>(), (Strings{"alpha", "\u20acuro"}));
    EXPECT_EQ(all[2]["text"], "alpha \u20acuro");
}

TEST_F(EventLog, ConcurrentReportsNeverInterleave) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            const std::string text(3000 + t, static_cast<char>('a' + t));
            const char* strings[] = {text.c_str()};
            for (int i = 0; i < 50; ++i)
                ReportEventA(source, EVENTLOG_ERROR_TYPE, 0, 0xC0004E95, nullptr, 1, 0, strings,
                             nullptr);
        });
    }
    for (auto& thread : threads) thread.join();
    const auto all = records();
    ASSERT_EQ(all.size(), 200u);
    for (const auto& record : all) {
        const std::string text = record.value("text", "");
        ASSERT_GE(text.size(), 3000u);
        EXPECT_EQ(text, "bind() fallito: " + std::string(text.size() - 16, text.back()));
    }
}

}  // namespace
}  // namespace qbsmtp::os
