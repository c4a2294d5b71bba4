// Tests of the bridge's queue on disk: the retry schedule and the repair
// at start of the moves a stop cut in half. (What each exit status of a
// command leads to is tested end to end by tests/scripts/host_exec_test.sh.)
#include "message_queue.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>

namespace qbsmtp::host {
namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

TEST(RetrySchedule, OneMinuteDoublingUpToAnHour) {
    const long expected[] = {60, 120, 240, 480, 960, 1920, 3600, 3600};  // by hand
    for (int n = 1; n <= 8; ++n) EXPECT_EQ(RetrySchedule{}.delay_after(n), expected[n - 1]) << n;
}

class Queue : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qbsmtp-queue-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        spool = pattern;
        for (const char* sub : {"deferred", "failed", "mime"}) fs::create_directory(spool / sub);
    }
    void TearDown() override { fs::remove_all(spool); }
    fs::path put(const std::string& name) {
        std::ofstream(spool / name) << name;
        return spool / name;
    }
    std::uint64_t inode(const fs::path& path) {
        struct stat status {};
        ::stat(path.c_str(), &status);
        return status.st_ino;
    }
    void sidecar(const std::string& name, ordered_json content) {
        content["record"]["file"] = (spool / name).string();
        std::ofstream(spool / (name + ".json")) << content.dump();
    }
    fs::path spool;
};

TEST_F(Queue, RepairFinishesHalfDoneMovesAndDropsStaleSidecars) {
    // A deferral cut between its sidecar and its rename.
    sidecar("deferred/rx000001.822", {{"source", put("rx000001.822").string()},
                                      {"inode", inode(spool / "rx000001.822")},
                                      {"next_try", 5}});
    // A sidecar whose source is another file now (the spool name came back).
    sidecar("deferred/rx000002.822", {{"source", put("rx000002.822").string()}, {"inode", 1}});
    // A failure of a deferred message cut after its sidecar.
    const fs::path third = put("deferred/rx000003.822");
    sidecar("deferred/rx000003.822", {{"next_try", 5}});
    fs::create_directory(spool / "failed/rx000003.822.files");
    sidecar("failed/rx000003.822",
            {{"source", third.string()},
             {"inode", inode(third)},
             {"deferred_sidecar", third.string() + ".json"},
             {"moves", ordered_json::array({ordered_json::array(
                           {put("mime/b.txt").string(),
                            (spool / "failed/rx000003.822.files/b.txt").string()})})}});
    put("deferred/rx000004.822.json.new");

    MessageQueue q(spool, RetrySchedule{}, spool / "events.jsonl", false);
    q.repair_and_load();
    EXPECT_TRUE(fs::exists(spool / "deferred/rx000001.822"));
    EXPECT_TRUE(fs::exists(spool / "rx000002.822"));
    EXPECT_FALSE(fs::exists(spool / "deferred/rx000002.822.json"));
    EXPECT_TRUE(fs::exists(spool / "failed/rx000003.822"));
    EXPECT_TRUE(fs::exists(spool / "failed/rx000003.822.files/b.txt"));
    EXPECT_FALSE(fs::exists(spool / "deferred/rx000003.822.json"));
    EXPECT_FALSE(fs::exists(spool / "deferred/rx000004.822.json.new"));
    EXPECT_EQ(q.deferred_count(), 1u);
    const auto due = q.take_due(5);
    ASSERT_TRUE(due);
    EXPECT_EQ(due->file, spool / "deferred/rx000001.822");
    std::ifstream log(spool / "events.jsonl");
    EXPECT_NE(std::string(std::istreambuf_iterator<char>(log), {}).find("\"0x80010005\""),
              std::string::npos);
}

}  // namespace
}  // namespace qbsmtp::host
