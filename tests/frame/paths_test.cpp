// paths_test.cpp: path texts, ensure_directory and create_unique_file, as
// tables in tests/data/frame.

#include "frame/paths.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "frame_fixture.h"
#include "support/case_table.h"

namespace qbsmtp {
namespace {

namespace fs = std::filesystem;

// A table's path: '\' as the platform's separator, a leading "D" as dir.
std::string path_of(std::string text, const std::string& dir = "") {
    if (!dir.empty() && text.rfind("D", 0) == 0) text = dir + text.substr(1);
    std::replace(text.begin(), text.end(), '\\', os::path_separator);
    return text;
}
const char* or_null(const std::string& text) {
    return text == "-" ? nullptr : text.c_str();
}

TEST(PathText, Table) {
    for (const test::Case& c : test::read_cases("frame/paths.txt", 3)) {
        const std::string path = path_of(c[1]);
        CountedString counted(or_null(path));
        std::string result;
        if (c[0] == "name") {
            result =
                path_file_name(path.c_str()) + std::string(" | ") + path_extension(path.c_str());
        } else if (c[0] == "remove") {
            result = remove_last_component(counted) != nullptr ? counted.c_str() : "";
        } else if (c[0] == "append") {
            append_component(counted, c[2].c_str());
            result = counted.c_str();
        } else {
            result = change_extension(counted, or_null(c[2]));
            EXPECT_EQ(result, counted.c_str()) << c.where;
        }
        EXPECT_EQ(result, path_of(c[0] == "name" ? c[2] + " | " + c[3] : c.fields.back()))
            << c.where;
        EXPECT_EQ(static_cast<std::size_t>(counted.length), std::strlen(counted.c_str()))
            << c.where;
    }
}

TEST(PathsOnDisk, EnsureDirectory) {
    test::TempPrefix prefix;
    int n = 0;
    for (const test::Case& c : test::read_cases("frame/ensure_directory.txt", 6)) {
        const std::string dir = prefix.file(std::string("D").append(std::to_string(++n)));
        fs::create_directory(dir);
        const std::string path = path_of(c[0], dir);
        if (c[1] == "file") std::ofstream(path).put('x');
        os::fault_clear();
        test::arm_faults(c[2]);
        EXPECT_EQ(ensure_directory(CountedString(or_null(path))), std::stoi(c[3])) << c.where;
        EXPECT_EQ(c[4].empty() ? "" : std::to_string(os::GetLastError()), c[4]) << c.where;
        EXPECT_EQ(c[5].empty() ? "" : std::to_string(os::fault_calls(os::Op::CreateDirectoryA)),
                  c[5])
            << c.where;
        os::fault_clear();
        EXPECT_EQ(fs::is_directory(path), c[3] == "1") << c.where;
    }
}

TEST(PathsOnDisk, UniqueFiles) {
    test::TempPrefix prefix;
    int n = 0;
    for (const test::Case& c : test::read_cases("frame/unique_files.txt", 9)) {
        const std::string dir = prefix.file(std::string("D").append(std::to_string(++n)));
        fs::create_directory(dir);
        const std::string sep(1, os::path_separator);
        for (char digit = '0'; digit <= '9' && !c[4].empty(); ++digit)
            std::ofstream(dir + sep + c[4].substr(0, c[4].size() - 1) + digit).put('x');
        const std::size_t capacity =
            c[3].rfind("D+", 0) == 0 ? dir.size() + std::stoul(c[3].substr(2)) : std::stoul(c[3]);
        os::fault_clear();
        test::arm_faults(c[5]);
        char path[600];
        std::memset(path, '#', sizeof path);
        os::HANDLE file = create_unique_file(CountedString(path_of(c[0], dir).c_str()), path,
                                             capacity, or_null(c[1]), or_null(c[2]));
        const std::string name(path, strnlen(path, capacity));
        EXPECT_EQ(os::fault_calls(os::Op::CreateFileA), std::stoul(c[7])) << c.where;
        EXPECT_EQ(std::string(path + capacity, 8), "########")
            << c.where << ": written behind capacity";
        if (c[6].rfind("error ", 0) == 0) {
            EXPECT_EQ(file, os::INVALID_HANDLE_VALUE) << c.where;
            EXPECT_EQ(os::GetLastError(), std::stoul(c[6].substr(6))) << c.where;
            EXPECT_EQ(name, capacity == 0 ? "" : (dir + sep + c[8]).substr(0, capacity - 1))
                << c.where;
            continue;
        }
        ASSERT_NE(file, os::INVALID_HANDLE_VALUE) << c.where;
        os::CloseHandle(file);
        const std::string head = dir + sep + (c[1] == "-" ? "" : c[1]);
        const std::string extension = c[2] == "-" ? "" : c[2];
        std::string masked = name;  // the digits as '#'
        for (char& ch : masked)
            ch = std::isdigit(static_cast<unsigned char>(ch)) && &ch >= &masked[head.size()] ? '#'
                                                                                             : ch;
        EXPECT_EQ(masked, head + std::string(std::stoul(c[6]), '#') + extension) << c.where;
        EXPECT_TRUE(fs::is_regular_file(name) && fs::file_size(name) == 0) << c.where;
    }
}

}  // namespace
}  // namespace qbsmtp
