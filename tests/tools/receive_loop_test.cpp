// Tests of one receive round against a stand-in module that behaves as
// the real one does at its interface: it takes the first waiting .822
// file, fills the record with LocalAlloc blocks, and takes the same file
// again until the host removes it.
#include "receive_loop.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

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
char* copy_out(const std::string& text) {  // with a second NUL, so it is a list too
    auto* block = static_cast<char*>(stand_in_alloc(0, text.size() + 2));
    std::memcpy(block, text.c_str(), text.size() + 1);
    block[text.size() + 1] = '\0';
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
    const std::string file = std::min_element(waiting.begin(), waiting.end())->string();
    record->file = copy_out(file);
    record->sender = copy_out("from@example.org");
    record->to = copy_out("to@example.org");
    record->to_names = copy_out("To");
    record->attachments = copy_out(file + ".txt");
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
    void spool(const std::string& name, const char* text = "Subject: x\r\n") {
        std::ofstream(stand_in_spool / name) << text;
    }
    RoundResult round(bool delete_taken = false) {
        return receive_one(module, default_subtype_rank(), print_and_dispose(out, delete_taken),
                           error);
    }
    std::string first_line(const fs::path& path) {
        std::string line;
        std::getline(std::ifstream(path), line);
        return line;
    }

    Module module;
    std::ostringstream out;
    std::string error;
};

TEST_F(ReceiveRound, PrintsEachMessageOnceAndKeepsItsFileInDoneUnderAFreeName) {
    fs::create_directory(stand_in_spool / "done");
    spool("done/rx000001.822", "earlier\n");
    spool("rx000001.822");
    spool("rx000002.822");
    stand_in_result = 0;  // a failed analysis is printed as not ok, and still disposed of
    EXPECT_EQ(round(), RoundResult::taken);
    stand_in_result = 1;
    EXPECT_EQ(round(), RoundResult::taken);
    EXPECT_EQ(round(), RoundResult::empty);
    std::istringstream lines(out.str());
    std::vector<nlohmann::json> records;
    for (std::string line; std::getline(lines, line);)
        records.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]["file"], (stand_in_spool / "rx000001.822").string());
    EXPECT_EQ(records[0]["ok"], false);
    EXPECT_EQ(records[1]["to"][0]["name"], "To");
    EXPECT_EQ(first_line(stand_in_spool / "done" / "rx000001.822"), "earlier");
    EXPECT_EQ(first_line(stand_in_spool / "done" / "rx000001.822.1"), "Subject: x\r");
    EXPECT_TRUE(fs::exists(stand_in_spool / "done" / "rx000002.822"));
    stand_in_result = 0;
    EXPECT_EQ(round(), RoundResult::failed_empty);  // a failure without a file
}

TEST_F(ReceiveRound, DeleteModeRemovesTheFileAndAnImmovableFileStopsTheLoop) {
    spool("rx000001.822");
    EXPECT_EQ(round(true), RoundResult::taken);
    EXPECT_TRUE(fs::is_empty(stand_in_spool));
    spool("done", "in the way");
    spool("rx000002.822");
    EXPECT_EQ(round(), RoundResult::stuck);
    EXPECT_NE(error.find("done"), std::string::npos) << error;
    EXPECT_TRUE(fs::exists(stand_in_spool / "rx000002.822"));
    // A file already gone counts as disposed of: the module can't take it again either.
    EXPECT_TRUE(dispose_spool_file((stand_in_spool / "gone.822").string(), false, error));
}

}  // namespace
}  // namespace qbsmtp::host
