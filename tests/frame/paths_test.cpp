// paths_test.cpp: path texts, ensure_directory, create_unique_file and
// FileFinder.

#include "frame/paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/os_fault.h"
#include "support/temp_prefix.h"

namespace qbsmtp {
namespace {

namespace fs = std::filesystem;
using os::Op;

// Writes a Windows-style path with the platform's separator.
std::string p(std::string text) {
    for (char& c : text) {
        if (c == '\\') c = os::path_separator;
    }
    return text;
}

TEST(PathText, FileNameAndExtension) {
    struct Case {
        const char* path;
        const char* file_name;
        const char* extension;
    };
    const Case cases[] = {
        {"C:\\spool\\rx000001.822", "rx000001.822", ".822"},
        {"C:\\a.b\\file", "file", ""},
        {".abc", ".abc", ".abc"},
        {"x.tar.gz", "x.tar.gz", ".gz"},
        {"C:\\dir\\", "", ""},
        {"name", "name", ""},
        {"a.", "a.", "."},
        {".", ".", ""},
        {"", "", ""},
        {"dir\\.profile", ".profile", ".profile"},
    };
    for (const Case& c : cases) {
        const std::string path = p(c.path);
        SCOPED_TRACE(path);
        EXPECT_STREQ(path_file_name(path.c_str()), c.file_name);
        const char* extension = path_extension(path.c_str());
        EXPECT_STREQ(extension, c.extension);
        // Never a copy: the result lies in the text (its NUL when empty).
        EXPECT_GE(extension, path.c_str());
        EXPECT_LE(extension, path.c_str() + path.size());
    }
}

TEST(PathText, RemoveLastComponent) {
    const std::pair<const char*, const char*> cases[] = {
        {"C:\\a\\b", "C:\\a"},
        {"C:\\a", "C:\\"},
        {"C:\\", "C:\\"},
        {"\\\\", "\\\\"},
        {"abc", ""},
        {"C:\\a\\", "C:\\a"},
        {"\\a", "\\"},
        {"\\", "\\"},
        {"a\\b\\c.txt", "a\\b"},
        {"", ""},
    };
    for (const auto& [before, after] : cases) {
        SCOPED_TRACE(before);
        CountedString path(p(before).c_str());
        remove_last_component(path);
        EXPECT_STREQ(path.c_str(), p(after).c_str());
        EXPECT_EQ(static_cast<std::size_t>(path.length), std::strlen(path.c_str()));
    }
    CountedString empty;
    EXPECT_EQ(remove_last_component(empty), nullptr);
}

TEST(PathText, AppendComponent) {
    struct Case {
        const char* path;
        const char* component;
        const char* result;
    };
    const Case cases[] = {
        {"C:\\spool", "mime", "C:\\spool\\mime"},
        {"C:\\spool\\", "mime", "C:\\spool\\mime"},
        {"", "mime", "mime"},
        {nullptr, "*.822", "*.822"},
        {"dir", "", "dir\\"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.result);
        CountedString path(c.path != nullptr ? p(c.path).c_str() : nullptr);
        append_component(path, c.component);
        EXPECT_STREQ(path.c_str(), p(c.result).c_str());
        EXPECT_EQ(static_cast<std::size_t>(path.length), std::strlen(path.c_str()));
    }
}

TEST(PathText, ChangeExtension) {
    struct Case {
        const char* path;
        const char* extension;
        const char* result;
    };
    const Case cases[] = {
        {"a.b\\c", ".822", "a.b\\c.822"},
        {"rx123456.tmp", ".822", "rx123456.822"},
        {"QBSMTP.dll", nullptr, "QBSMTP"},
        {"C:\\spool\\rx000001.tmp", ".822", "C:\\spool\\rx000001.822"},
        {"noext", ".txt", "noext.txt"},
        {"short.x", ".much-longer-extension", "short.much-longer-extension"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        CountedString path(p(c.path).c_str());
        const char* result = change_extension(path, c.extension);
        EXPECT_STREQ(result, p(c.result).c_str());
        EXPECT_EQ(result, path.text);
        EXPECT_EQ(static_cast<std::size_t>(path.length), std::strlen(path.c_str()));
    }
}

TEST(PathText, FailedAllocationLeavesPathUnchanged) {
    CountedString path(p("C:\\spool\\rx000001.tmp").c_str());
    const std::string before = path.c_str();
    {
        os::FaultScope fault(Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        append_component(path, "mime");
        EXPECT_EQ(os::GetLastError(), os::ERROR_NOT_ENOUGH_MEMORY);
    }
    EXPECT_EQ(before, path.c_str());
    EXPECT_EQ(static_cast<std::size_t>(path.length), before.size());
    {
        os::FaultScope fault(Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        os::SetLastError(0);
        change_extension(path, ".822");
        EXPECT_EQ(os::GetLastError(), os::ERROR_NOT_ENOUGH_MEMORY);
    }
    EXPECT_EQ(before, path.c_str());
}

class PathsOnDisk : public ::testing::Test {
  protected:
    test::TempPrefix prefix;
    std::string root = prefix.file("root");

    void SetUp() override { fs::create_directory(root); }
    static void touch(const std::string& path) { std::ofstream(path).put('x'); }
};

TEST_F(PathsOnDisk, IsDirectory) {
    touch(root + "/file");
    EXPECT_EQ(is_directory(CountedString(root.c_str())), 1);
    EXPECT_EQ(is_directory(CountedString((root + "/file").c_str())), 0);
    EXPECT_EQ(is_directory(CountedString((root + "/missing").c_str())), 0);
    EXPECT_EQ(is_directory(CountedString()), 0);
}

TEST_F(PathsOnDisk, EnsureDirectoryMakesOnlyWhatIsMissing) {
    // An existing directory: no creation at all.
    os::fault_clear();
    EXPECT_EQ(ensure_directory(CountedString(root.c_str())), 1);
    EXPECT_EQ(os::fault_calls(Op::CreateDirectoryA), 0u);

    // One missing level: exactly one call.
    os::fault_clear();
    EXPECT_EQ(ensure_directory(CountedString((root + "/one").c_str())), 1);
    EXPECT_EQ(os::fault_calls(Op::CreateDirectoryA), 1u);
    EXPECT_TRUE(fs::is_directory(root + "/one"));

    // Two missing levels: the lower fails, then upper and lower succeed.
    os::fault_clear();
    EXPECT_EQ(ensure_directory(CountedString((root + "/two/levels").c_str())), 1);
    EXPECT_EQ(os::fault_calls(Op::CreateDirectoryA), 3u);
    EXPECT_TRUE(fs::is_directory(root + "/two/levels"));

    // A trailing separator names the same directory.
    os::fault_clear();
    EXPECT_EQ(ensure_directory(CountedString((root + "/three/").c_str())), 1);
    EXPECT_TRUE(fs::is_directory(root + "/three"));
}

TEST_F(PathsOnDisk, EnsureDirectoryFailures) {
    os::SetLastError(0);
    EXPECT_EQ(ensure_directory(CountedString()), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_NOT_FOUND);

    // A file holds the name.
    touch(root + "/file");
    EXPECT_EQ(ensure_directory(CountedString((root + "/file").c_str())), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_DIRECTORY);

    // Access denied twice, with one retry between.
    {
        os::FaultScope fault(Op::CreateDirectoryA, 1, os::ERROR_ACCESS_DENIED, true);
        EXPECT_EQ(ensure_directory(CountedString((root + "/denied").c_str())), 0);
        EXPECT_EQ(os::GetLastError(), os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(os::fault_calls(Op::CreateDirectoryA), 2u);
    }
    // Denied once, then made by the retry.
    {
        os::FaultScope fault(Op::CreateDirectoryA, 1, os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(ensure_directory(CountedString((root + "/retried").c_str())), 1);
        EXPECT_TRUE(fs::is_directory(root + "/retried"));
    }
    // Any other error ends the walk at once, with that error.
    {
        os::FaultScope fault(Op::CreateDirectoryA, 1, os::ERROR_DISK_FULL, true);
        EXPECT_EQ(ensure_directory(CountedString((root + "/full/sub").c_str())), 0);
        EXPECT_EQ(os::GetLastError(), os::ERROR_DISK_FULL);
        EXPECT_EQ(os::fault_calls(Op::CreateDirectoryA), 1u);
    }
    // The root itself missing: error 3, not endless recursion. Every level
    // up to "/", which is its own parent, is tried once.
    {
        const std::string path = root + "/a/b/c";
        os::FaultScope fault(Op::CreateDirectoryA, 1, os::ERROR_PATH_NOT_FOUND, true);
        os::fault_arm(Op::GetFileAttributesA, 1, os::ERROR_FILE_NOT_FOUND, true);
        EXPECT_EQ(ensure_directory(CountedString(path.c_str())), 0);
        EXPECT_EQ(os::GetLastError(), os::ERROR_PATH_NOT_FOUND);
        const auto levels = static_cast<unsigned>(std::count(path.begin(), path.end(), '/'));
        EXPECT_EQ(os::fault_calls(Op::CreateDirectoryA), levels + 1);
    }
    {
        os::FaultScope fault(Op::CreateDirectoryA, 1, os::ERROR_PATH_NOT_FOUND, true);
        EXPECT_EQ(ensure_directory(CountedString("relative")), 0);
        EXPECT_EQ(os::GetLastError(), os::ERROR_PATH_NOT_FOUND);
    }
}

class UniqueFile : public PathsOnDisk {
  protected:
    // Creates one file and closes it; the name that came back, or "" on failure.
    std::string create(const char* directory, std::size_t capacity, const char* prefix,
                       const char* extension) {
        char path[600];
        std::memset(path, '#', sizeof path);
        os::HANDLE file =
            create_unique_file(CountedString(directory), path, capacity, prefix, extension);
        // Nothing is written at or behind capacity.
        for (std::size_t i = capacity; i < sizeof path; ++i) {
            if (path[i] != '#') ADD_FAILURE() << "written at " << i;
        }
        last_path.assign(path, strnlen(path, capacity));
        if (file == os::INVALID_HANDLE_VALUE) return "";
        os::CloseHandle(file);
        return path;
    }
    std::string last_path;
};

// The name behind the directory: prefix, digits, extension.
void expect_name(const std::string& path, const std::string& directory, const std::string& prefix,
                 std::size_t digits, const std::string& extension) {
    ASSERT_EQ(path.size(), directory.size() + 1 + prefix.size() + digits + extension.size())
        << path;
    EXPECT_EQ(path.substr(0, directory.size() + 1), directory + os::path_separator);
    EXPECT_EQ(path.substr(directory.size() + 1, prefix.size()), prefix);
    const std::string number = path.substr(directory.size() + 1 + prefix.size(), digits);
    EXPECT_EQ(number.find_first_not_of("0123456789"), std::string::npos) << path;
    EXPECT_EQ(path.substr(path.size() - extension.size()), extension);
    EXPECT_TRUE(fs::is_regular_file(path));
    EXPECT_EQ(fs::file_size(path), 0u);
}

TEST_F(UniqueFile, DigitCountsFollowPrefixExtensionAndCapacity) {
    expect_name(create(root.c_str(), 260, "rx", ".tmp"), root, "rx", 6, ".tmp");
    expect_name(create(root.c_str(), 256, nullptr, ".txt"), root, "", 8, ".txt");
    expect_name(create(root.c_str(), 512, "", ".a-very-long-extension"), root, "", 8,
                ".a-very-long-extension");
    // Characters before the extension's first dot take from the stem.
    expect_name(create(root.c_str(), 260, "ab", "xyz.gz"), root, "ab", 3, "xyz.gz");
    expect_name(create(root.c_str(), 260, "", "noext"), root, "", 3, "noext");
    expect_name(create(root.c_str(), 260, "seven77", nullptr), root, "seven77", 1, "");
    // A directory that already ends in a separator gets no second one.
    expect_name(create((root + os::path_separator).c_str(), 260, "rx", ".tmp"), root, "rx", 6,
                ".tmp");
}

TEST_F(UniqueFile, ExactCapacityGivesThreeDigits) {
    // Room for exactly three digits: the name with its NUL fills capacity.
    const std::size_t capacity = root.size() + 1 + 3 + 4 + 1;
    const std::string name = create(root.c_str(), capacity, nullptr, ".txt");
    expect_name(name, root, "", 3, ".txt");
    EXPECT_EQ(name.size() + 1, capacity);
}

TEST_F(UniqueFile, NoRoomForOneDigit) {
    struct Case {
        const char* prefix;
        const char* extension;
        std::size_t capacity;
    };
    const Case cases[] = {
        {"eightchr", ".tmp", 260},  // the prefix fills the stem
        {"muchlongerprefix", "", 260},
        {"abcd", "efgh", 260},  // an extension without a dot takes its length
        {"rx", ".tmp", 0},      // capacity: nothing written at all
        {"rx", ".tmp", 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.prefix);
        os::fault_clear();
        os::SetLastError(0);
        EXPECT_EQ(create(root.c_str(), c.capacity, c.prefix, c.extension), "");
        EXPECT_EQ(os::GetLastError(), os::ERROR_BUFFER_OVERFLOW);
        EXPECT_EQ(os::fault_calls(Op::CreateFileA), 0u);
    }
    // The template stays in path, cut at capacity when it has to be.
    create(root.c_str(), 260, "eightchr", ".tmp");
    EXPECT_EQ(last_path, root + os::path_separator + "eightchr*.tmp");
    create(root.c_str(), 5, "rx", ".tmp");
    EXPECT_EQ(last_path, root.substr(0, 4));
    EXPECT_TRUE(fs::is_empty(root));
}

TEST_F(UniqueFile, NeverOverrunsTheWorkPath) {
    // 512 bytes of capacity, but the name would not fit 260.
    const std::string extension = "." + std::string(255, 'e');
    os::fault_clear();
    EXPECT_EQ(create(root.c_str(), 512, nullptr, extension.c_str()), "");
    EXPECT_EQ(os::GetLastError(), os::ERROR_BUFFER_OVERFLOW);
    EXPECT_EQ(os::fault_calls(Op::CreateFileA), 0u);
    EXPECT_EQ(last_path, root + os::path_separator + "*" + extension);
}

TEST_F(UniqueFile, ExistingNamesAreSkippedUntilAttemptsRunOut) {
    // One digit: nine attempts, and a file for every number 1 to 9 and 0.
    for (char digit = '0'; digit <= '9'; ++digit) {
        touch(root + os::path_separator + "seven77" + digit);
    }
    os::fault_clear();
    EXPECT_EQ(create(root.c_str(), 260, "seven77", nullptr), "");
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_EXISTS);
    EXPECT_EQ(os::fault_calls(Op::CreateFileA), 9u);
    EXPECT_EQ(last_path, root + os::path_separator + "seven77*");

    // A collision costs one attempt, and the next number is tried.
    {
        os::FaultScope fault(Op::CreateFileA, 1, os::ERROR_FILE_EXISTS);
        expect_name(create(root.c_str(), 260, "sixsix", ".x"), root, "sixsix", 2, ".x");
        EXPECT_EQ(os::fault_calls(Op::CreateFileA), 2u);
    }
}

TEST_F(UniqueFile, OtherErrorsStopAtOnce) {
    os::FaultScope fault(Op::CreateFileA, 1, os::ERROR_ACCESS_DENIED, true);
    EXPECT_EQ(create(root.c_str(), 260, "rx", ".tmp"), "");
    EXPECT_EQ(os::GetLastError(), os::ERROR_ACCESS_DENIED);
    EXPECT_EQ(os::fault_calls(Op::CreateFileA), 1u);
    EXPECT_EQ(last_path, root + os::path_separator + "rx*.tmp");
}

TEST_F(UniqueFile, SuccessiveCallsTakeSuccessiveNumbers) {
    // The digits are the low-order ones, so each call moves the name on
    // by one, and none of them collides with the one before.
    os::fault_clear();
    long previous = -1;
    for (int i = 0; i < 12; ++i) {
        const std::string name = create(root.c_str(), 260, "rx", ".tmp");
        ASSERT_FALSE(name.empty());
        const long number = std::stol(name.substr(root.size() + 3, 6));
        if (previous >= 0 && previous != 999999) {
            EXPECT_EQ(number, previous + 1) << name;
        }
        previous = number;
    }
    EXPECT_EQ(os::fault_calls(Op::CreateFileA), 12u);
}

TEST_F(PathsOnDisk, FileFinder) {
    {
        // Only "." and "..": a proper search with nothing found.
        FileFinder finder;
        EXPECT_EQ(finder.find_first(root.c_str(), "*"), 1);
        EXPECT_EQ(finder.found, 0);
    }
    {
        FileFinder finder;
        EXPECT_EQ(finder.find_first(root.c_str(), "*.822"), 1);
        EXPECT_EQ(finder.found, 0);
    }
    touch(root + "/rx000001.tmp");
    touch(root + "/rx000002.822");
    {
        FileFinder finder;
        EXPECT_EQ(finder.find_first(root.c_str(), "*.822"), 1);
        ASSERT_EQ(finder.found, 1);
        EXPECT_STREQ(finder.data.cFileName, "rx000002.822");
        // The only match: the next step ends the search properly.
        EXPECT_EQ(finder.find_next(), 1);
        EXPECT_EQ(finder.found, 0);
        EXPECT_EQ(finder.handle, os::INVALID_HANDLE_VALUE);
    }
    {
        // Every entry but the dot entries.
        FileFinder finder;
        ASSERT_EQ(finder.find_first((root + "/").c_str(), "*"), 1);
        int entries = 0;
        while (finder.found) {
            EXPECT_EQ(finder.is_dot_entry(), 0);
            ++entries;
            ASSERT_EQ(finder.find_next(), 1);
        }
        EXPECT_EQ(entries, 2);
    }
    {
        // A search of a missing directory is a failure, not an empty result.
        FileFinder finder;
        os::FaultScope fault(Op::FindFirstFileA, 1, os::ERROR_PATH_NOT_FOUND);
        EXPECT_EQ(finder.find_first((root + "/missing").c_str(), "*.822"), 0);
        EXPECT_EQ(finder.found, 0);
        EXPECT_EQ(os::GetLastError(), os::ERROR_PATH_NOT_FOUND);
    }
}

TEST(FileFinderEntries, DotEntriesAreExactlyDotAndDotDot) {
    FileFinder finder;
    const std::pair<const char*, int> names[] = {
        {".", 1}, {"..", 1}, {"...", 0}, {".822", 0}, {"a", 0}, {"", 0},
    };
    for (const auto& [name, dot] : names) {
        std::strcpy(finder.data.cFileName, name);
        EXPECT_EQ(finder.is_dot_entry(), dot) << name;
    }
}

}  // namespace
}  // namespace qbsmtp
