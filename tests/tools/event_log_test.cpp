// Tests of the event log reader: growth, partial lines, rotation, and the
// readable form of an event.
#include "event_log.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

namespace qbsmtp::host {
namespace {

namespace fs = std::filesystem;

class EventLog : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qbsmtp-events-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        path = directory / "events.jsonl";
    }
    void TearDown() override { fs::remove_all(directory); }
    void append(const std::string& text) { std::ofstream(path, std::ios::app) << text; }

    fs::path directory, path;
};

using Lines = std::vector<std::string>;

TEST_F(EventLog, FollowsGrowthAndHoldsBackAnUnfinishedLine) {
    EventLogReader reader(path, false);
    EXPECT_EQ(reader.read_new_lines(), Lines{});  // no file yet
    append("{\"n\":1}\n{\"n\":");
    EXPECT_EQ(reader.read_new_lines(), Lines{"{\"n\":1}"});
    EXPECT_EQ(reader.read_new_lines(), Lines{});
    append("2}\n{\"n\":3}\n");
    EXPECT_EQ(reader.read_new_lines(), (Lines{"{\"n\":2}", "{\"n\":3}"}));
}

TEST_F(EventLog, FromEndSkipsWhatIsThere) {
    append("old\n");
    EventLogReader reader(path, true);
    EXPECT_EQ(reader.read_new_lines(), Lines{});
    append("new\n");
    EXPECT_EQ(reader.read_new_lines(), Lines{"new"});
}

TEST_F(EventLog, StartsOverOnARotatedFile) {
    append("first\nsecond\n");
    EventLogReader reader(path, false);
    EXPECT_EQ(reader.read_new_lines(), (Lines{"first", "second"}));
    // Rotation renames the log away; the new file is longer than the old
    // offset, so only its identity tells.
    fs::rename(path, directory / "events.jsonl.1");
    append("third line, which is long\n");
    EXPECT_EQ(reader.read_new_lines(), Lines{"third line, which is long"});
    // A file cut shorter in place.
    std::ofstream(path, std::ios::trunc) << "x\n";
    EXPECT_EQ(reader.read_new_lines(), Lines{"x"});
}

TEST_F(EventLog, HostEventsAreLinesOfTheirOwnSourceWithTheTypeOfTheirId) {
    append("{\"n\":1}\n");
    ASSERT_TRUE(report_host_event(path, host_event::message_failed, "x \"failed\""));
    ASSERT_TRUE(report_host_event(path, host_event::message_deferred, "y"));
    const Lines lines = EventLogReader(path, false).read_new_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(event_source(lines[1]), "qbsmtp-host");
    EXPECT_EQ(event_id(lines[1]), "0xC0010004");
    EXPECT_EQ(event_type(lines[1]), "error");
    EXPECT_EQ(event_type(lines[2]), "warning");
    EXPECT_NE(format_event(lines[1]).find("  error  0xC0010004  x \"failed\""), std::string::npos);
}

TEST(EventFormat, ShowsTimeTypeIdAndTextWithoutLineEnd) {
    const std::string line =
        R"({"time":"2024-05-01T09:30:00Z","source":"QBSMTP","id":"0xC0004E95",)"
        R"("type":"error","strings":["x"],"text":"bind() fallito: x\r\n"})";
    EXPECT_EQ(format_event(line), "2024-05-01T09:30:00Z  error  0xC0004E95  bind() fallito: x");
    EXPECT_EQ(event_type(line), "error");
    EXPECT_EQ(format_event("{\"id\":\"0x0000000E\"}"), "?  ?  0x0000000E  ");
    for (const char* odd : {"not json", "[1,2]", "", "\"text\""}) {
        EXPECT_EQ(format_event(odd), std::string("(not an event) ") + odd);
        EXPECT_EQ(event_type(odd), "");
    }
}

}  // namespace
}  // namespace qbsmtp::host
