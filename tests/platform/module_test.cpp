// The module's own file and load references, here with the code linked
// into the test program.
#include <limits.h>
#include <stdlib.h>

#include <string>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp::os {
namespace {

std::string own_file() {
    char path[PATH_MAX];
    return realpath("/proc/self/exe", path) != nullptr ? path : "";
}

TEST(Module, FileNameIsTheFileThatHoldsTheCode) {
    char name[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, name, sizeof name);
    ASSERT_GT(length, 0u);
    EXPECT_EQ(std::string(name, length), own_file());
    HMODULE self = GetModuleHandleA(nullptr);
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(GetModuleFileNameA(self, name, sizeof name), length);
    // Too small a buffer: cut, terminated, the size as result.
    char small[8];
    EXPECT_EQ(GetModuleFileNameA(nullptr, small, sizeof small), 8u);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(std::string(small), own_file().substr(0, 7));
}

TEST(Module, LoadLibraryOnItselfGivesTheModuleAndCounts) {
    std::string path = own_file();
    HMODULE first = LoadLibraryA(path.c_str());
    HMODULE second = LoadLibraryA(path.c_str());
    EXPECT_EQ(first, GetModuleHandleA(nullptr));
    EXPECT_EQ(second, first);
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_TRUE(FreeLibrary(second));
    std::string bare = path.substr(path.rfind('/') + 1);
    EXPECT_EQ(GetModuleHandleA(bare.c_str()), first);
}

TEST(Module, OtherFilesLoadThroughTheSystemLoader) {
    HMODULE library = LoadLibraryA(QBSMTP_MODULE_PATH);
    ASSERT_NE(library, nullptr);
    EXPECT_NE(library, GetModuleHandleA(nullptr));
    char name[PATH_MAX];
    ASSERT_GT(GetModuleFileNameA(library, name, sizeof name), 0u);
    char expected[PATH_MAX];
    ASSERT_NE(realpath(QBSMTP_MODULE_PATH, expected), nullptr);
    EXPECT_STREQ(name, expected);
    EXPECT_TRUE(FreeLibrary(library));
    EXPECT_FALSE(FreeLibrary(library));

    SetLastError(0);
    EXPECT_EQ(LoadLibraryA("/nonexistent/QBSMTP.so"), nullptr);
    EXPECT_EQ(GetLastError(), 126u);
    FaultScope scope(Op::LoadLibraryA, 1, 126);
    EXPECT_EQ(LoadLibraryA(own_file().c_str()), nullptr);
}

}  // namespace
}  // namespace qbsmtp::os
