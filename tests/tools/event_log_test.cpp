// Tests of the event log: following growth, partial lines and rotation,
// the readable form of an event, and the host's own events.
#include "event_log.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

namespace qbsmtp::host {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

TEST(EventLog, FollowsGrowthRotationAndWritesHostEvents) {
    char pattern[] = "/tmp/qbsmtp-events-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path path = fs::path(pattern) / "events.jsonl";
    const auto append = [&](const char* text) { std::ofstream(path, std::ios::app) << text; };
    EventLogReader reader(path, false);
    EXPECT_EQ(reader.read_new_lines(), Lines{});  // no file yet
    append("old\n");
    EventLogReader later(path, true);  // skips what is there
    append("{\"n\":1}\n{\"n\":");      // an unfinished line waits
    EXPECT_EQ(reader.read_new_lines(), (Lines{"old", "{\"n\":1}"}));
    append("2}\n");
    EXPECT_EQ(reader.read_new_lines(), Lines{"{\"n\":2}"});
    EXPECT_EQ(later.read_new_lines(), (Lines{"{\"n\":1}", "{\"n\":2}"}));
    // Rotation renames the log away; the new file is longer than the old
    // offset, so only its identity tells.
    fs::rename(path, path.string() + ".1");
    ASSERT_TRUE(report_host_event(path, host_event::message_failed, "x \"failed\" and long"));
    ASSERT_TRUE(report_host_event(path, host_event::message_deferred, "y"));
    const Lines lines = reader.read_new_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(event_source(lines[0]), "qbsmtp-host");
    EXPECT_EQ(event_id(lines[0]), "0xC0010004");
    EXPECT_EQ(event_type(lines[0]), "error");
    EXPECT_NE(format_event(lines[0]).find("  error  0xC0010004  x \"failed\" and long"),
              std::string::npos);
    std::ofstream(path, std::ios::trunc) << "x\n";  // cut shorter in place
    EXPECT_EQ(reader.read_new_lines(), Lines{"x"});
    fs::remove_all(pattern);
}

TEST(EventFormat, ShowsTimeTypeIdAndTextWithoutLineEnd) {
    const std::string line =
        R"({"time":"2024-05-01T09:30:00Z","source":"QBSMTP","id":"0xC0004E95",)"
        R"("type":"error","strings":["x"],"text":"bind() fallito: x\r\n"})";
    EXPECT_EQ(format_event(line), "2024-05-01T09:30:00Z  error  0xC0004E95  bind() fallito: x");
    for (const char* odd : {"not json", "[1,2]", "", "\"text\""}) {
        EXPECT_EQ(format_event(odd), std::string("(not an event) ") + odd);
        EXPECT_EQ(event_type(odd), "");
    }
}

}  // namespace
}  // namespace qbsmtp::host
