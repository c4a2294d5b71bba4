// Tests of one receive round against a stand-in module that behaves as
// the real one does at its interface: it takes the first waiting .822
// file, fills the record with LocalAlloc blocks, and takes the same file
// again until the host removes it.
#include "receive_loop.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "record_json.h"

namespace qbsmtp::host {
namespace {

namespace fs = std::filesystem;

std::set<void*> live_blocks;
fs::path stand_in_spool;
std::int32_t stand_in_result = 1;
int badly_prepared_calls = 0;

void* stand_in_alloc(unsigned int, std::size_t bytes) {
    void* block = std::malloc(bytes);
    live_blocks.insert(block);
    return block;
}
void* stand_in_free(void* block) {
    EXPECT_EQ(live_blocks.erase(block), 1u) << "freed a block the module never gave";
    std::free(block);
    return nullptr;
}
char* copy_out(const std::string& text, std::size_t extra = 0) {
    auto* block = static_cast<char*>(stand_in_alloc(0, text.size() + 1 + extra));
    std::memcpy(block, text.c_str(), text.size() + 1);
    if (extra) block[text.size() + 1] = '\0';
    return block;
}

std::int32_t stand_in_recv_next(MailRecord* record) {
    MailRecord prepared{};
    prepared.subtype_rank = record->subtype_rank;
    if (record->subtype_rank == nullptr || std::memcmp(record, &prepared, sizeof prepared) != 0)
        ++badly_prepared_calls;
    std::vector<fs::path> waiting;
    for (const auto& entry : fs::directory_iterator(stand_in_spool))
        if (entry.path().extension() == ".822") waiting.push_back(entry.path());
    if (waiting.empty()) return stand_in_result;
    std::sort(waiting.begin(), waiting.end());
    const std::string file = waiting.front().string();
    record->file = copy_out(file);
    record->file_length = static_cast<std::int32_t>(file.size());
    record->sender = copy_out("from@example.org");
    record->sender_length = 16;
    record->to = copy_out("to@example.org", 1);
    record->to_names = copy_out("To", 1);
    record->attachments = copy_out(file + ".txt", 1);
    return stand_in_result;
}

class ReceiveRound : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qbsmtp-round-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        stand_in_spool = pattern;
        stand_in_result = 1;
        badly_prepared_calls = 0;
        live_blocks.clear();
        module.recv_next = stand_in_recv_next;
        module.local_alloc = stand_in_alloc;
        module.local_free = stand_in_free;
    }
    void TearDown() override {
        fs::remove_all(stand_in_spool);
        EXPECT_TRUE(live_blocks.empty()) << "blocks left unfreed";
        EXPECT_EQ(badly_prepared_calls, 0);
    }
    void spool(const char* name) { std::ofstream(stand_in_spool / name) << "Subject: x\r\n"; }
    RoundResult round() { return receive_one(module, settings, out, error); }
    std::vector<nlohmann::json> printed() {
        std::vector<nlohmann::json> records;
        std::istringstream lines(out.str());
        for (std::string line; std::getline(lines, line);)
            records.push_back(nlohmann::json::parse(line));
        return records;
    }

    Module module;
    ReceiveSettings settings;
    std::ostringstream out;
    std::string error;
};

TEST_F(ReceiveRound, PrintsEachMessageOnceAndKeepsItsFileInDone) {
    spool("rx000001.822");
    spool("rx000002.822");
    EXPECT_EQ(round(), RoundResult::printed);
    EXPECT_EQ(round(), RoundResult::printed);
    EXPECT_EQ(round(), RoundResult::empty);
    const auto records = printed();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]["file"], (stand_in_spool / "rx000001.822").string());
    EXPECT_EQ(records[1]["file"], (stand_in_spool / "rx000002.822").string());
    EXPECT_EQ(records[0]["to"][0]["name"], "To");
    EXPECT_EQ(records[0]["ok"], true);
    EXPECT_TRUE(fs::exists(stand_in_spool / "done" / "rx000001.822"));
    EXPECT_TRUE(fs::exists(stand_in_spool / "done" / "rx000002.822"));
}

TEST_F(ReceiveRound, DeleteModeRemovesTheFile) {
    settings.delete_taken = true;
    spool("rx000001.822");
    EXPECT_EQ(round(), RoundResult::printed);
    EXPECT_EQ(round(), RoundResult::empty);
    EXPECT_FALSE(fs::exists(stand_in_spool / "rx000001.822"));
    EXPECT_FALSE(fs::exists(stand_in_spool / "done"));
}

TEST_F(ReceiveRound, FailedAnalysisIsPrintedAsNotOkAndStillDisposed) {
    stand_in_result = 0;
    spool("rx000001.822");
    EXPECT_EQ(round(), RoundResult::printed);
    EXPECT_EQ(printed().at(0)["ok"], false);
    EXPECT_EQ(round(), RoundResult::failed_empty);  // a failure without a file
}

TEST_F(ReceiveRound, AFileThatCannotBeMovedStopsTheLoop) {
    std::ofstream(stand_in_spool / "done") << "in the way";
    spool("rx000001.822");
    EXPECT_EQ(round(), RoundResult::stuck);
    EXPECT_NE(error.find("done"), std::string::npos) << error;
    EXPECT_TRUE(fs::exists(stand_in_spool / "rx000001.822"));
}

TEST_F(ReceiveRound, ASpoolNameSeenBeforeGetsAFreeNameInDone) {
    fs::create_directory(stand_in_spool / "done");
    std::ofstream(stand_in_spool / "done" / "rx000001.822") << "earlier";
    std::ofstream(stand_in_spool / "done" / "rx000001.822.1") << "earlier still";
    spool("rx000001.822");
    EXPECT_EQ(round(), RoundResult::printed);
    std::ifstream kept(stand_in_spool / "done" / "rx000001.822.2");
    std::string first_line;
    std::getline(kept, first_line);
    EXPECT_EQ(first_line, "Subject: x\r");
    std::ifstream earlier(stand_in_spool / "done" / "rx000001.822");
    std::getline(earlier, first_line);
    EXPECT_EQ(first_line, "earlier");
}

TEST(DisposeSpoolFile, AFileAlreadyGoneCountsAsDisposed) {
    std::string error;
    EXPECT_TRUE(dispose_spool_file("/tmp/qbsmtp-no-such-dir/rx000009.822", false, error));
    EXPECT_TRUE(dispose_spool_file("/tmp/qbsmtp-no-such-dir/rx000009.822", true, error));
}

}  // namespace
}  // namespace qbsmtp::host
