// Tests of the host's record handling: the state before SMTPRecvNext, the
// release of every block, packed lists, and the subtype preference.
#include "host_record.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

namespace qbsmtp::host {
namespace {

// An allocator that knows its live blocks, so a test sees leaks and
// frees of blocks it never gave out.
std::set<void*> live_blocks;
int foreign_frees = 0;
int allocations_left = 1000;

void* tracked_alloc(unsigned int, std::size_t bytes) {
    if (allocations_left-- <= 0) return nullptr;
    void* block = std::malloc(bytes);
    live_blocks.insert(block);
    return block;
}
void* tracked_free(void* block) {
    if (live_blocks.erase(block) == 0) ++foreign_frees;
    std::free(block);
    return nullptr;
}
const Allocator tracked{tracked_alloc, tracked_free};

class HostRecord : public ::testing::Test {
  protected:
    void SetUp() override {
        live_blocks.clear();
        foreign_frees = 0;
        allocations_left = 1000;
    }
};

TEST_F(HostRecord, ReleaseFreesEveryBlockAndClearsTheRecord) {
    const SubtypeRank rank = default_subtype_rank();
    MailRecord record;
    prepare_for_receive(record, rank.data());
    bool failed = false;
    record.file = allocate_text("/s/rx1.822", record.file_length, tracked);
    record.sender = allocate_text("a@x", record.sender_length, tracked);
    record.sender_name = allocate_text("A", record.sender_name_length, tracked);
    record.subject = allocate_text("hi", record.subject_length, tracked);
    char** lists[] = {&record.to,  &record.to_names,  &record.cc,         &record.cc_names,
                      &record.bcc, &record.bcc_names, &record.attachments};
    for (char** list : lists) *list = allocate_list({"entry"}, tracked, failed);
    record.date = {1, 2};
    record.temporary_failure = 1;
    ASSERT_EQ(live_blocks.size(), 11u);
    EXPECT_EQ(record.file_length, 10);
    EXPECT_STREQ(record.file, "/s/rx1.822");

    release_record(record, tracked);
    EXPECT_TRUE(live_blocks.empty());
    EXPECT_EQ(foreign_frees, 0);
    MailRecord expected{};
    expected.subtype_rank = rank.data();
    EXPECT_EQ(std::memcmp(&record, &expected, sizeof record), 0);

    release_record(record, tracked);  // nothing left: frees nothing
    EXPECT_EQ(foreign_frees, 0);
}

TEST_F(HostRecord, ListsArePackedWithAFinalNul) {
    bool failed = true;
    char* block = allocate_list({"a", "bb"}, tracked, failed);
    ASSERT_NE(block, nullptr);
    EXPECT_FALSE(failed);
    EXPECT_EQ(std::string(block, 6), std::string("a\0bb\0\0", 6));
    EXPECT_EQ(list_entries(block), (std::vector<std::string>{"a", "bb"}));
    tracked_free(block);

    EXPECT_EQ(allocate_list({}, tracked, failed), nullptr);  // the empty list is null
    EXPECT_FALSE(failed);
    EXPECT_TRUE(list_entries(nullptr).empty());
    EXPECT_TRUE(list_entries("\0").empty());
}

TEST_F(HostRecord, AllocationFailuresAreReported) {
    allocations_left = 0;
    bool failed = false;
    EXPECT_EQ(allocate_list({"a"}, tracked, failed), nullptr);
    EXPECT_TRUE(failed);
    std::int32_t length = 7;
    EXPECT_EQ(allocate_text("abc", length, tracked), nullptr);
    EXPECT_EQ(length, 0);
}

TEST(SubtypeRank, DefaultPrefersPlainThenEnrichedThenHtml) {
    const SubtypeRank rank = default_subtype_rank();
    EXPECT_LT(rank[QBSMTP_SUBTYPE_PLAIN], rank[QBSMTP_SUBTYPE_ENRICHED]);
    EXPECT_LT(rank[QBSMTP_SUBTYPE_ENRICHED], rank[QBSMTP_SUBTYPE_HTML]);
    for (int code = QBSMTP_SUBTYPE_MIXED; code < QBSMTP_SUBTYPE_COUNT; ++code)
        EXPECT_GT(rank[code], rank[QBSMTP_SUBTYPE_HTML]) << subtype_names()[code];
}

TEST(SubtypeRank, PreferenceListPutsNamedSubtypesFirstInOrder) {
    SubtypeRank rank = default_subtype_rank();
    std::string error;
    EXPECT_FALSE(parse_subtype_preference("HTML,pdf,plain", rank, error));
    EXPECT_NE(error.find("\"pdf\""), std::string::npos);

    ASSERT_TRUE(parse_subtype_preference("html,Tiff", rank, error)) << error;
    EXPECT_EQ(rank[QBSMTP_SUBTYPE_HTML], 0);
    EXPECT_EQ(rank[QBSMTP_SUBTYPE_TIFF], 1);
    // The rest keep their default order behind the named ones.
    EXPECT_LT(rank[QBSMTP_SUBTYPE_TIFF], rank[QBSMTP_SUBTYPE_PLAIN]);
    EXPECT_LT(rank[QBSMTP_SUBTYPE_PLAIN], rank[QBSMTP_SUBTYPE_ENRICHED]);
    EXPECT_LT(rank[QBSMTP_SUBTYPE_ENRICHED], rank[QBSMTP_SUBTYPE_GIF]);

    const SubtypeRank before = rank;
    EXPECT_FALSE(parse_subtype_preference("plain,html,plain", rank, error));
    EXPECT_NE(error.find("twice"), std::string::npos);
    EXPECT_EQ(rank, before);  // a refused list changes nothing
    EXPECT_FALSE(parse_subtype_preference("plain,,html", rank, error));
}

}  // namespace
}  // namespace qbsmtp::host
