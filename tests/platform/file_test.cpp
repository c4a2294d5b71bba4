// Files with Win32 semantics: dispositions, transfers, copies, moves,
// directories and the names Windows refuses.
#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "support/temp_prefix.h"

namespace qbsmtp::os {
namespace {

using test::read_file;
using test::write_file;

class FileTest : public ::testing::Test {
  protected:
    test::TempPrefix dir;
    std::string at(const std::string& name) const { return dir.file(name); }

    HANDLE open(const std::string& name, DWORD disposition,
                DWORD access = GENERIC_READ | GENERIC_WRITE) {
        return CreateFileA(name.c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                           nullptr);
    }
};

TEST_F(FileTest, DispositionsOnMissingAndExistingFiles) {
    struct Row {
        DWORD disposition;
        bool exists;
        bool opens;
        DWORD error;          // last error after the call
        std::string content;  // of the file afterwards
    };
    const Row rows[] = {
        {CREATE_NEW, false, true, 0, ""},
        {CREATE_NEW, true, false, ERROR_FILE_EXISTS, "old"},
        {CREATE_ALWAYS, false, true, 0, ""},
        {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, ""},
        {OPEN_EXISTING, false, false, ERROR_FILE_NOT_FOUND, ""},
        {OPEN_EXISTING, true, true, 0, "old"},
        {OPEN_ALWAYS, false, true, 0, ""},
        {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "old"},
        {TRUNCATE_EXISTING, false, false, ERROR_FILE_NOT_FOUND, ""},
        {TRUNCATE_EXISTING, true, true, 0, ""},
        {77, true, false, ERROR_INVALID_PARAMETER, "old"},
    };
    int n = 0;
    for (const Row& row : rows) {
        std::string name = at("f" + std::to_string(n++));
        if (row.exists) write_file(name, "old");
        SetLastError(12345);
        HANDLE file = open(name, row.disposition);
        EXPECT_EQ(file != INVALID_HANDLE_VALUE, row.opens) << n;
        EXPECT_EQ(GetLastError(), row.error) << n;
        if (file != INVALID_HANDLE_VALUE) {
            EXPECT_TRUE(CloseHandle(file));
        }
        EXPECT_EQ(read_file(name), row.content) << n;
    }
}

TEST_F(FileTest, MissingDirectoryOnTheWayIsPathNotFound) {
    EXPECT_EQ(open(at("nodir/x"), OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(open(at("nodir/x"), CREATE_NEW), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(GetFileAttributesA(at("nodir/x").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(GetFileAttributesA(at("x").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST_F(FileTest, NamesThatWindowsRefusesAreRefusedEverywhere) {
    const char* bad[] = {"a<b", "a>b", "a:b", "a\"b", "a|b", "a?b", "a*b", "a\x01", "tab\there"};
    for (const char* name : bad) {
        std::string path = at(name);
        SetLastError(0);
        EXPECT_EQ(open(path, CREATE_NEW), INVALID_HANDLE_VALUE) << name;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME) << name;
        EXPECT_FALSE(CreateDirectoryA(path.c_str(), nullptr)) << name;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME) << name;
        write_file(at("src"), "x");
        EXPECT_FALSE(CopyFileA(at("src").c_str(), path.c_str(), 0)) << name;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME) << name;
        EXPECT_FALSE(MoveFileA(at("src").c_str(), path.c_str())) << name;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME) << name;
        struct stat status;
        EXPECT_NE(::stat(path.c_str(), &status), 0) << name;
    }
    // Names Windows accepts stay usable.
    HANDLE file = open(at("rx000001.tmp"), CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    CloseHandle(file);
}

TEST_F(FileTest, PathsBeyondMaxPathAreRefused) {
    std::string base = at("");
    ASSERT_LT(base.size(), 100u);
    std::string longest = base + std::string(MAX_PATH - 1 - base.size(), 'a');  // 259 bytes
    HANDLE file = open(longest, CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    CloseHandle(file);
    EXPECT_EQ(open(longest + "b", CREATE_NEW), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    // A directory must leave room for an 8.3 name below it.
    std::string directory = base + std::string(MAX_PATH - 12 - base.size(), 'd');
    EXPECT_FALSE(CreateDirectoryA(directory.c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    directory.pop_back();
    EXPECT_TRUE(CreateDirectoryA(directory.c_str(), nullptr));
}

TEST_F(FileTest, ReadWriteSeekAndSize) {
    HANDLE file = open(at("data"), CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    std::string payload(200000, 'q');
    payload[123456] = 'Z';
    DWORD written = 0;
    ASSERT_TRUE(
        WriteFile(file, payload.data(), static_cast<DWORD>(payload.size()), &written, nullptr));
    EXPECT_EQ(written, payload.size());
    LONGLONG size = 0;
    ASSERT_TRUE(GetFileSizeEx(file, &size));
    EXPECT_EQ(size, 200000);
    LONGLONG position = -1;
    ASSERT_TRUE(SetFilePointerEx(file, 123456, &position, FILE_BEGIN));
    EXPECT_EQ(position, 123456);
    char byte = 0;
    DWORD read = 0;
    ASSERT_TRUE(ReadFile(file, &byte, 1, &read, nullptr));
    EXPECT_EQ(read, 1u);
    EXPECT_EQ(byte, 'Z');
    ASSERT_TRUE(SetFilePointerEx(file, -10, &position, FILE_END));
    EXPECT_EQ(position, 199990);
    char tail[64];
    ASSERT_TRUE(ReadFile(file, tail, sizeof tail, &read, nullptr));
    EXPECT_EQ(read, 10u);  // short only at the end of the file
    ASSERT_TRUE(ReadFile(file, tail, sizeof tail, &read, nullptr));
    EXPECT_EQ(read, 0u);
    EXPECT_FALSE(SetFilePointerEx(file, -1, &position, FILE_BEGIN));
    EXPECT_EQ(GetLastError(), 131u);
    EXPECT_TRUE(CloseHandle(file));
}

TEST_F(FileTest, AccessModesAreEnforced) {
    write_file(at("ro"), "abc");
    HANDLE file = open(at("ro"), OPEN_EXISTING, GENERIC_READ);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD written = 99;
    EXPECT_FALSE(WriteFile(file, "x", 1, &written, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(written, 0u);
    CloseHandle(file);
    EXPECT_EQ(read_file(at("ro")), "abc");
}

TEST_F(FileTest, HandlesAreCheckedAndClosedOnce) {
    HANDLE file = open(at("h"), CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(file));
    DWORD read;
    char byte;
    for (HANDLE bad : {file, INVALID_HANDLE_VALUE, static_cast<HANDLE>(nullptr)}) {
        SetLastError(0);
        EXPECT_FALSE(CloseHandle(bad));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_FALSE(ReadFile(bad, &byte, 1, &read, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
}

TEST_F(FileTest, DirectoryCannotBeOpenedOrDeletedAsAFile) {
    ASSERT_TRUE(CreateDirectoryA(at("d").c_str(), nullptr));
    EXPECT_EQ(open(at("d"), OPEN_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_FALSE(DeleteFileA(at("d").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(GetFileAttributesA(at("d").c_str()), FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(FileTest, CreateDirectoryErrors) {
    ASSERT_TRUE(CreateDirectoryA(at("d").c_str(), nullptr));
    EXPECT_FALSE(CreateDirectoryA(at("d").c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    write_file(at("plain"), "");
    EXPECT_FALSE(CreateDirectoryA(at("plain").c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(CreateDirectoryA(at("missing/d").c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(CreateDirectoryA(at("plain/d").c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    ASSERT_EQ(::chmod(at("d").c_str(), 0500), 0);
    if (::geteuid() != 0) {
        EXPECT_FALSE(CreateDirectoryA(at("d/sub").c_str(), nullptr));
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    }
}

TEST_F(FileTest, DeleteFile) {
    write_file(at("gone"), "x");
    EXPECT_TRUE(DeleteFileA(at("gone").c_str()));
    EXPECT_FALSE(DeleteFileA(at("gone").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(DeleteFileA(at("no/gone").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST_F(FileTest, CopyHonoursFailIfExistsAndNeverTruncatesItsSource) {
    write_file(at("a"), "alpha");
    write_file(at("b"), "beta-old-longer");
    EXPECT_FALSE(CopyFileA(at("a").c_str(), at("b").c_str(), 1));
    EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);
    EXPECT_EQ(read_file(at("b")), "beta-old-longer");
    EXPECT_TRUE(CopyFileA(at("a").c_str(), at("b").c_str(), 0));
    EXPECT_EQ(read_file(at("b")), "alpha");
    EXPECT_TRUE(CopyFileA(at("a").c_str(), at("c").c_str(), 1));
    EXPECT_EQ(read_file(at("c")), "alpha");
    EXPECT_FALSE(CopyFileA(at("a").c_str(), at("a").c_str(), 0));
    EXPECT_EQ(read_file(at("a")), "alpha");
    EXPECT_FALSE(CopyFileA(at("none").c_str(), at("d").c_str(), 0));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(CopyFileA(at("a").c_str(), at("no/d").c_str(), 0));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST_F(FileTest, MoveNeverReplacesItsTarget) {
    write_file(at("rx1.tmp"), "one");
    write_file(at("rx2.822"), "two");
    EXPECT_FALSE(MoveFileA(at("rx1.tmp").c_str(), at("rx2.822").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(read_file(at("rx2.822")), "two");
    EXPECT_EQ(read_file(at("rx1.tmp")), "one");
    EXPECT_TRUE(MoveFileA(at("rx1.tmp").c_str(), at("rx1.822").c_str()));
    EXPECT_EQ(read_file(at("rx1.822")), "one");
    EXPECT_EQ(GetFileAttributesA(at("rx1.tmp").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_FALSE(MoveFileA(at("rx1.tmp").c_str(), at("x").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(MoveFileA(at("rx1.822").c_str(), at("no/x").c_str()));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST_F(FileTest, InjectedFaultsFailInTheCallersStyle) {
    write_file(at("a"), "alpha");
    {
        FaultScope scope(Op::CreateFileA, 1, ERROR_DISK_FULL);
        EXPECT_EQ(open(at("n"), CREATE_NEW), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
    }
    HANDLE file = open(at("a"), OPEN_EXISTING);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    {
        FaultScope scope(Op::WriteFile, 1, ERROR_DISK_FULL);
        DWORD written = 7;
        EXPECT_FALSE(WriteFile(file, "z", 1, &written, nullptr));
        EXPECT_EQ(written, 0u);
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
    }
    {
        FaultScope scope(Op::CloseHandle, 1, ERROR_WRITE_FAULT);
        EXPECT_FALSE(CloseHandle(file));
        EXPECT_EQ(GetLastError(), ERROR_WRITE_FAULT);
    }
    // A failed close has released the handle, as a real one does.
    EXPECT_FALSE(CloseHandle(file));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(read_file(at("a")), "alpha");
}

}  // namespace
}  // namespace qbsmtp::os
