// Tests of MultiString's byte layouts and block capacities, and of the
// helpers that write the record's fields.
#include "frame/multi_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "decomposition/mail_record.h"
#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp {
namespace {

std::string bytes_of(const MultiString& list) {
    return std::string(list.text(), list.byte_size());
}

std::size_t capacity(const MultiString& list) {
    return os::LocalSize(list.block);
}

std::vector<std::string> entries(const char* list) {
    std::vector<std::string> out;
    for (const char* e = list; *e != '\0'; e = MultiString::next_entry(e)) out.emplace_back(e);
    return out;
}

TEST(MultiString, AppendLayoutsAndGrowth) {
    MultiString list;
    list.append("");
    list.append(nullptr);
    EXPECT_EQ(list.block, nullptr);
    EXPECT_EQ(list.byte_size(), 0u);

    list.append("a");
    ASSERT_NE(list.block, nullptr);
    EXPECT_EQ(capacity(list), 303u);  // 1 + 0 + 302
    EXPECT_EQ(bytes_of(list), std::string("a\0\0", 3));
    EXPECT_EQ(list.byte_size(), 3u);

    char* first_block = list.block;
    list.append("bb");
    EXPECT_EQ(list.block, first_block);
    EXPECT_EQ(bytes_of(list), std::string("a\0bb\0\0", 6));
    EXPECT_EQ(list.byte_size(), 6u);

    // Fill so that the capacity equals len + used + 2 exactly: the strict
    // test then asks for a new block of len + used + 302.
    std::size_t used = list.byte_size();                   // 6
    std::string filler(303 - used - 2 - 10 - 1 - 2, 'f');  // leaves 10 + 2 + used
    list.append(filler.c_str());
    used = list.byte_size();
    ASSERT_EQ(list.block, first_block);
    std::string exact(303 - used - 2, 'x');
    ASSERT_EQ(capacity(list), exact.size() + used + 2);
    list.append(exact.c_str());
    EXPECT_NE(list.block, first_block);
    EXPECT_EQ(capacity(list), exact.size() + used + 302);
    EXPECT_EQ(entries(list.text()), (std::vector<std::string>{"a", "bb", filler, exact}));
    EXPECT_EQ(list.byte_size(), used + exact.size() + 1);

    // One byte less than the block: still room.
    MultiString roomy;
    roomy.append("a");  // 303 bytes, 3 used
    char* block = roomy.block;
    roomy.append(std::string(303 - 3 - 3, 'y').c_str());  // cap 303 > 297 + 3 + 2
    EXPECT_EQ(roomy.block, block);
    EXPECT_EQ(roomy.byte_size(), 3u + 297 + 1);
}

// A list of many entries (a message of very many parts): appends that
// keep the byte size give the same list, and beyond 64 KiB the block grows
// by half, so the number of allocations grows with the logarithm of the
// length, not with the length (as steps of 300 bytes would).
TEST(MultiString, LongListGrowsProportionallyAndKeepsItsSize) {
    constexpr int count = 100000;
    const std::string path = "/spool/mime/12345678.txt";
    MultiString walked;
    MultiString kept;
    std::size_t used = 0;
    os::fault_clear();  // counts LocalAlloc calls from here on
    for (int i = 0; i < count; ++i) {
        const std::string entry = path + std::to_string(i % 10);
        kept.append(entry.c_str(), used);
        if (i % 9973 == 0) {
            ASSERT_EQ(used, kept.byte_size()) << "after entry " << i;
        }
    }
    EXPECT_EQ(used, kept.byte_size());
    EXPECT_LT(os::fault_calls(os::Op::LocalAlloc), 300u);
    for (int i = 0; i < 2000; ++i) walked.append((path + std::to_string(i % 10)).c_str());
    EXPECT_EQ(std::memcmp(walked.block, kept.block, walked.byte_size() - 1), 0);
    EXPECT_EQ(entries(kept.text()).size(), static_cast<std::size_t>(count));

    // used of 0 is "not known": the list is walked once.
    std::size_t unknown = 0;
    kept.append("tail", unknown);
    EXPECT_EQ(unknown, kept.byte_size());
    EXPECT_EQ(entries(kept.text()).back(), "tail");
}

TEST(MultiString, ConstructReserveAssignClear) {
    MultiString with_room(10);
    ASSERT_NE(with_room.block, nullptr);
    EXPECT_EQ(capacity(with_room), 12u);
    EXPECT_EQ(with_room.block[0], '\0');
    EXPECT_EQ(with_room.byte_size(), 0u);
    char* block = with_room.block;
    with_room.append("0123456789");  // 12 > 10 + 0 + 2 is false: a new block
    EXPECT_NE(with_room.block, block);

    MultiString list;
    list.reserve(0);
    EXPECT_EQ(list.block, nullptr);
    list.assign("abc");
    EXPECT_EQ(capacity(list), 5u);
    EXPECT_EQ(bytes_of(list), std::string("abc\0\0", 5));
    block = list.block;
    list.assign("xy");  // fits: the block stays
    EXPECT_EQ(list.block, block);
    EXPECT_EQ(bytes_of(list), std::string("xy\0\0", 4));
    list.reserve(5);
    EXPECT_EQ(list.block, block);
    list.assign("longer text");  // a larger block, old entries gone
    EXPECT_EQ(capacity(list), 13u);
    EXPECT_EQ(entries(list.text()), std::vector<std::string>{"longer text"});
    list.append("z");  // assign left no room: 1 + 13 used + 302
    EXPECT_EQ(capacity(list), 316u);
    EXPECT_EQ(entries(list.text()), (std::vector<std::string>{"longer text", "z"}));

    list.assign(nullptr);
    EXPECT_EQ(list.block, nullptr);
    ASSERT_NE(list.text(), nullptr);
    EXPECT_EQ(list.text()[0], '\0');
    list.assign("q");
    list.assign("");
    EXPECT_EQ(list.block, nullptr);
    list.append("r");
    list.clear();
    EXPECT_EQ(list.block, nullptr);
    EXPECT_EQ(list.text(), empty_text);
}

TEST(MultiString, NextEntryAndEmptyForms) {
    MultiString list;
    list.append("one");
    list.append("two");
    const char* first = list.text();
    const char* second = MultiString::next_entry(first);
    EXPECT_STREQ(second, "two");
    const char* end = MultiString::next_entry(second);
    EXPECT_EQ(end, list.block + 8);  // the final NUL of the list
    EXPECT_EQ(*end, '\0');
    EXPECT_EQ(MultiString::next_entry(end), empty_text);
    EXPECT_EQ(MultiString::next_entry(nullptr), empty_text);

    // A block that starts with NUL is the empty list too.
    MultiString empty(0);
    EXPECT_EQ(empty.byte_size(), 0u);
    empty.append("x");
    EXPECT_EQ(bytes_of(empty), std::string("x\0\0", 3));

    char* released = list.release();
    EXPECT_EQ(list.block, nullptr);
    EXPECT_EQ(entries(released), (std::vector<std::string>{"one", "two"}));
    os::LocalFree(released);
}

TEST(MultiString, FailedAllocationNeverWritesThroughNull) {
    MultiString list;
    list.append("keep");
    {
        os::FaultScope fault(os::Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY, true);
        list.append(std::string(400, 'x').c_str());  // needs a new block
        MultiString none(5);
        EXPECT_EQ(none.block, nullptr);
        MultiString assigned;
        assigned.assign("abc");
        EXPECT_EQ(assigned.block, nullptr);
    }
    EXPECT_EQ(entries(list.text()), std::vector<std::string>{"keep"});
}

TEST(MailRecordFields, CountedTextKeepsOrReplacesItsBlock) {
    MailRecord record{};
    set_record_text(record.subject_length, record.subject, "hello");
    ASSERT_NE(record.subject, nullptr);
    EXPECT_EQ(record.subject_length, 5);
    EXPECT_STREQ(record.subject, "hello");
    EXPECT_EQ(os::LocalSize(record.subject), 6u);

    char* block = record.subject;
    set_record_text(record.subject_length, record.subject, "hi");  // not longer: kept
    EXPECT_EQ(record.subject, block);
    EXPECT_EQ(record.subject_length, 2);
    EXPECT_STREQ(record.subject, "hi");

    set_record_text(record.subject_length, record.subject, "hey");  // longer than 2
    EXPECT_EQ(record.subject_length, 3);
    EXPECT_STREQ(record.subject, "hey");
    EXPECT_EQ(os::LocalSize(record.subject), 4u);

    // From a part of its own text.
    set_record_text(record.subject_length, record.subject, record.subject + 1, 2);
    EXPECT_STREQ(record.subject, "ey");

    CountedString value("from a counted string");
    set_record_text(record.sender_length, record.sender, value);
    EXPECT_STREQ(record.sender, "from a counted string");
    EXPECT_EQ(record.sender_length, value.length);
    EXPECT_NE(record.sender, value.text);  // a copy

    set_record_text(record.subject_length, record.subject, nullptr);
    EXPECT_EQ(record.subject, nullptr);
    EXPECT_EQ(record.subject_length, 0);
    set_record_text(record.sender_length, record.sender, "x", 0);
    EXPECT_EQ(record.sender, nullptr);
    EXPECT_EQ(record.sender_length, 0);
}

TEST(MailRecordFields, FailedAllocationEmptiesTheField) {
    MailRecord record{};
    set_record_text(record.file_length, record.file, "a");
    {
        os::FaultScope fault(os::Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        set_record_text(record.file_length, record.file, "longer");
    }
    EXPECT_EQ(record.file, nullptr);
    EXPECT_EQ(record.file_length, 0);

    append_record_list(record.attachments, "/spool/mime/1.txt");
    append_record_list(record.attachments, "");
    append_record_list(record.attachments, "/spool/mime/2.pdf");
    EXPECT_EQ(entries(record.attachments),
              (std::vector<std::string>{"/spool/mime/1.txt", "/spool/mime/2.pdf"}));
    clear_record_list(record.attachments);
    EXPECT_EQ(record.attachments, nullptr);
}

}  // namespace
}  // namespace qbsmtp
