// Tests of the host's record handling: the release of every block, packed
// lists and allocation failures. (--prefer: tests/scripts/host_parse_test.sh.)
#include "host_record.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

namespace qbsmtp::host {
namespace {

// An allocator that knows its live blocks and can run out.
std::set<void*> live_blocks;
int allocations_left = 1000;
void* tracked_alloc(unsigned int, std::size_t bytes) {
    if (allocations_left-- <= 0) return nullptr;
    return *live_blocks.insert(std::malloc(bytes)).first;
}
void* tracked_free(void* block) {
    EXPECT_EQ(live_blocks.erase(block), 1u) << "a block never given out";
    std::free(block);
    return nullptr;
}
const Allocator tracked{tracked_alloc, tracked_free};

TEST(HostRecord, ReleaseFreesEveryBlockAndClearsTheRecord) {
    const SubtypeRank rank = default_subtype_rank();
    MailRecord record;
    std::memset(&record, 0xA5, sizeof record);
    prepare_for_receive(record, rank.data());
    bool failed = false;
    record.file = allocate_text("/s/rx1.822", record.file_length, tracked);
    for (char** text : {&record.sender, &record.sender_name, &record.subject})
        *text = allocate_text("t", record.sender_length, tracked);
    for (char** list : {&record.to, &record.to_names, &record.cc, &record.cc_names, &record.bcc,
                        &record.bcc_names, &record.attachments})
        *list = allocate_list({"a", "bb"}, tracked, failed);
    EXPECT_EQ(std::string(record.to, 6), std::string("a\0bb\0\0", 6));
    EXPECT_EQ(list_entries(record.to), (std::vector<std::string>{"a", "bb"}));
    EXPECT_EQ(record.file_length, 10);
    ASSERT_EQ(live_blocks.size(), 11u);
    record.date = {1, 2};
    release_record(record, tracked);
    EXPECT_TRUE(live_blocks.empty());
    MailRecord expected{};
    expected.subtype_rank = rank.data();
    EXPECT_EQ(std::memcmp(&record, &expected, sizeof record), 0);
    release_record(record, tracked);  // nothing left: frees nothing

    EXPECT_EQ(allocate_list({}, tracked, failed), nullptr);  // the empty list is null
    EXPECT_FALSE(failed);
    allocations_left = 0;
    EXPECT_EQ(allocate_list({"a"}, tracked, failed), nullptr);
    EXPECT_TRUE(failed);
    EXPECT_EQ(allocate_text("abc", record.file_length, tracked), nullptr);
    EXPECT_EQ(record.file_length, 0);
}

}  // namespace
}  // namespace qbsmtp::host
