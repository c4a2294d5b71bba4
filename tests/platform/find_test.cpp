// Directory searches: Windows wildcards, dot entries, errors.
#include <algorithm>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"
#include "support/temp_prefix.h"

namespace qbsmtp::os {
namespace {

TEST(Wildcards, MatchLikeWindowsIgnoringCase) {
    struct Row {
        const char* pattern;
        const char* name;
        bool matches;
    };
    const Row rows[] = {
        {"*.822", "rx123456.822", true},
        {"*.822", "RX1.822", true},
        {"*.822", "rx1.822.tmp", false},
        {"*.822", "rx1.8222", false},
        {"*", ".", true},
        {"*", "..", true},
        {"*.*", "noext", true},
        {"rx??????.tmp", "rx000001.tmp", true},
        {"rx??????.tmp", "rx01.tmp", false},
        {"?", "", false},
        {"a*b*c", "aXXbYYc", true},
        {"a*b*c", "aXXbYY", false},
        {"**x", "abx", true},
        {"exact", "EXACT", true},
        {"exact", "exact1", false},
        {"*.TXT", "a.txt", true},
    };
    for (const Row& row : rows)
        EXPECT_EQ(posix::wildcard_match(row.pattern, row.name), row.matches)
            << row.pattern << " vs " << row.name;
}

class FindTest : public ::testing::Test {
  protected:
    test::TempPrefix dir;

    // Every name a search delivers, or the error of FindFirstFileA.
    std::multiset<std::string> search(const std::string& pattern, DWORD* error = nullptr) {
        std::multiset<std::string> names;
        WIN32_FIND_DATAA data;
        HANDLE handle = FindFirstFileA(pattern.c_str(), &data);
        if (handle == INVALID_HANDLE_VALUE) {
            if (error != nullptr) *error = GetLastError();
            return names;
        }
        do names.insert(data.cFileName);
        while (FindNextFileA(handle, &data));
        EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
        EXPECT_TRUE(FindClose(handle));
        return names;
    }
};

TEST_F(FindTest, PatternsSelectEntriesAndDotEntriesComeAsOnWindows) {
    for (const char* name : {"rx000001.822", "RX000002.822", "rx000003.tmp", "other"})
        test::write_file(dir.file(name), "x");
    ASSERT_TRUE(CreateDirectoryA(dir.file("mime").c_str(), nullptr));
    using Names = std::multiset<std::string>;
    EXPECT_EQ(search(dir.file("*.822")), (Names{"rx000001.822", "RX000002.822"}));
    EXPECT_EQ(search(dir.file("*")),
              (Names{".", "..", "rx000001.822", "RX000002.822", "rx000003.tmp", "other", "mime"}));
    EXPECT_EQ(search(dir.file("rx*.TMP")), (Names{"rx000003.tmp"}));
}

TEST_F(FindTest, DataDescribesTheEntry) {
    test::write_file(dir.file("file.txt"), std::string(1234, 'a'));
    ASSERT_TRUE(CreateDirectoryA(dir.file("sub").c_str(), nullptr));
    WIN32_FIND_DATAA data;
    HANDLE handle = FindFirstFileA(dir.file("file.*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    EXPECT_STREQ(data.cFileName, "file.txt");
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(data.nFileSizeLow, 1234u);
    EXPECT_EQ(data.nFileSizeHigh, 0u);
    SYSTEMTIME written;
    ASSERT_TRUE(FileTimeToSystemTime(&data.ftLastWriteTime, &written));
    EXPECT_GE(written.wYear, 2024);
    FindClose(handle);
    handle = FindFirstFileA(dir.file("SUB").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    FindClose(handle);
}

TEST_F(FindTest, FailuresTellNothingMatchedFromNoDirectory) {
    DWORD error = 0;
    EXPECT_TRUE(search(dir.file("*.822"), &error).empty());
    EXPECT_EQ(error, ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(search(dir.file("missing/*.822"), &error).empty());
    EXPECT_EQ(error, ERROR_PATH_NOT_FOUND);
    test::write_file(dir.file("plain"), "");
    EXPECT_TRUE(search(dir.file("plain/*"), &error).empty());
    EXPECT_EQ(error, ERROR_PATH_NOT_FOUND);
    WIN32_FIND_DATAA data;
    EXPECT_FALSE(FindNextFileA(INVALID_HANDLE_VALUE, &data));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(FindClose(nullptr));
}

TEST_F(FindTest, NamesUpToTheFileSystemLimitAreDelivered) {
    std::string long_name(255, 'n');  // fits the file system, not a Windows path
    test::write_file(dir.file(long_name), "");
    test::write_file(dir.file("short.822"), "");
    // The directory part makes the full name longer than MAX_PATH, but only
    // the name itself counts for the entry.
    auto names = search(dir.file("*"));
    EXPECT_EQ(names.count(long_name), 1u);
    EXPECT_EQ(names.count("short.822"), 1u);
}

TEST_F(FindTest, InjectedFaults) {
    test::write_file(dir.file("a.822"), "");
    WIN32_FIND_DATAA data;
    {
        FaultScope scope(Op::FindFirstFileA, 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(FindFirstFileA(dir.file("*").c_str(), &data), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    }
    HANDLE handle = FindFirstFileA(dir.file("*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    {
        FaultScope scope(Op::FindNextFileA, 1, ERROR_READ_FAULT);
        EXPECT_FALSE(FindNextFileA(handle, &data));
        EXPECT_EQ(GetLastError(), ERROR_READ_FAULT);
    }
    EXPECT_TRUE(FindNextFileA(handle, &data));
    FindClose(handle);
}

}  // namespace
}  // namespace qbsmtp::os
