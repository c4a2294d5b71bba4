// counted_string_test.cpp: the ownership and reuse rules of CountedString.

#include "frame/counted_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp {
namespace {

using os::Op;

TEST(CountedString, EmptyValues) {
    const CountedString empty;
    EXPECT_EQ(empty.length, 0);
    EXPECT_EQ(empty.text, nullptr);
    EXPECT_STREQ(empty.c_str(), "");
    EXPECT_TRUE(empty.empty());

    // Null and "" give the empty value; no block is held.
    const CountedString from_null(nullptr);
    const CountedString from_empty("");
    EXPECT_EQ(from_null.text, nullptr);
    EXPECT_EQ(from_empty.text, nullptr);
    EXPECT_EQ(from_empty.length, 0);

    // Assigning null, "" or a length of 0 frees the block.
    CountedString value("text");
    value = static_cast<const char*>(nullptr);
    EXPECT_EQ(value.text, nullptr);
    value = "text";
    value.assign("text", 0);
    EXPECT_EQ(value.text, nullptr);
    value = "text";
    value = "";
    EXPECT_EQ(value.text, nullptr);
    EXPECT_EQ(value.length, 0);
}

TEST(CountedString, ConstructionCopies) {
    char source[] = "spool";
    CountedString value(source);
    source[0] = 'X';
    EXPECT_STREQ(value.c_str(), "spool");
    EXPECT_EQ(value.length, 5);
    EXPECT_EQ(os::LocalSize(value.text), 6u);

    CountedString copy(value);
    EXPECT_NE(copy.text, value.text);
    EXPECT_STREQ(copy.c_str(), "spool");
}

TEST(CountedString, AssignmentReusesBlockUnlessLonger) {
    CountedString value("abcdef");
    char* const block = value.text;

    value = "xyz";  // shorter: same block
    EXPECT_EQ(value.text, block);
    EXPECT_EQ(value.length, 3);
    EXPECT_STREQ(value.c_str(), "xyz");

    value = "123456";  // longer than the 3 held: a new block
    EXPECT_NE(value.text, nullptr);
    EXPECT_EQ(value.length, 6);
    EXPECT_EQ(os::LocalSize(value.text), 7u);
    char* const second = value.text;

    value = "654321";  // equal length: kept
    EXPECT_EQ(value.text, second);
    EXPECT_STREQ(value.c_str(), "654321");

    // A tail of its own text (overlapping) is copied correctly.
    value = value.text + 2;
    EXPECT_EQ(value.text, second);
    EXPECT_STREQ(value.c_str(), "4321");
    value.assign(value.text + 1, 2);
    EXPECT_STREQ(value.c_str(), "32");
}

TEST(CountedString, AllocatedEmptyTextReadsAsEmpty) {
    auto* block = static_cast<char*>(os::LocalAlloc(0, 1));
    ASSERT_NE(block, nullptr);
    block[0] = '\0';
    CountedString value;
    value.adopt(block, 0);
    EXPECT_EQ(value.text, block);
    EXPECT_TRUE(value.empty());
    EXPECT_STREQ(value.c_str(), "");
    // Any positive length then needs a block of its own.
    value = "a";
    EXPECT_EQ(value.length, 1);
    EXPECT_STREQ(value.c_str(), "a");
}

TEST(CountedString, FailedAllocationLeavesLengthZero) {
    CountedString value("ab");
    {
        os::FaultScope fault(Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        value = "longer text";
    }
    EXPECT_EQ(value.length, 0);
    EXPECT_EQ(value.text, nullptr);
    {
        os::FaultScope fault(Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        const CountedString failed("text");
        EXPECT_EQ(failed.length, 0);
        EXPECT_EQ(failed.text, nullptr);
    }
}

TEST(CountedString, ReleaseAndAdoptMoveTheBlock) {
    CountedString value("record field");
    char* const block = value.text;
    char* taken = value.release();
    EXPECT_EQ(taken, block);
    EXPECT_EQ(value.text, nullptr);
    EXPECT_EQ(value.length, 0);

    CountedString other;
    other.adopt(taken, 12);
    EXPECT_EQ(other.text, block);
    EXPECT_EQ(other.length, 12);
}

TEST(CountedString, FreeingKeepsTheLastError) {
    CountedString value("text");
    os::SetLastError(os::ERROR_DIRECTORY);
    value.clear();
    EXPECT_EQ(os::GetLastError(), os::ERROR_DIRECTORY);
    {
        const CountedString temporary("temporary");
        os::SetLastError(os::ERROR_FILE_EXISTS);
    }
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_EXISTS);
}

}  // namespace
}  // namespace qbsmtp
