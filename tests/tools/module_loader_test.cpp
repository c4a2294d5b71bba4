// Tests of loading the module the way the host does: dlopen, then dlsym
// of the six exports and the module's LocalAlloc/LocalFree.
#include "module_loader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace qbsmtp::host {
namespace {

namespace fs = std::filesystem;

class ModuleLoader : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qbsmtp-loader-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        prefix = pattern;
        setenv("QBSMTP_PREFIX", prefix.c_str(), 1);  // the module's state goes here
    }
    void TearDown() override { fs::remove_all(prefix); }

    fs::path prefix;
    Module module;
    std::string error;
};

TEST_F(ModuleLoader, TakesTheFirstCandidateThatExistsAndBindsEveryEntry) {
    ASSERT_TRUE(module.load({(prefix / "absent.so").string(), QBSMTP_MODULE_PATH}, error)) << error;
    EXPECT_EQ(module.path, QBSMTP_MODULE_PATH);
    for (const void* entry : {reinterpret_cast<const void*>(module.set_logging),
                              reinterpret_cast<const void*>(module.recv_init),
                              reinterpret_cast<const void*>(module.recv_stop),
                              reinterpret_cast<const void*>(module.recv_next),
                              reinterpret_cast<const void*>(module.send_init),
                              reinterpret_cast<const void*>(module.send),
                              reinterpret_cast<const void*>(module.local_alloc),
                              reinterpret_cast<const void*>(module.local_free)})
        EXPECT_NE(entry, nullptr);
    // The bound allocator is the module's: a block from it goes back to it.
    void* block = module.local_alloc(0, 32);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(module.local_free(block), nullptr);
    module.set_logging(0);
    EXPECT_EQ(module.recv_stop(), 1);
}

TEST_F(ModuleLoader, NoCandidateNamesEveryPlaceItLooked) {
    const std::string a = (prefix / "a" / "QBSMTP.so").string();
    const std::string b = (prefix / "b" / "QBSMTP.so").string();
    EXPECT_FALSE(module.load({a, b}, error));
    EXPECT_NE(error.find(a), std::string::npos) << error;
    EXPECT_NE(error.find(b), std::string::npos) << error;
    EXPECT_EQ(module.recv_next, nullptr);
}

TEST_F(ModuleLoader, AFileThatIsNoLibraryIsRefused) {
    const fs::path text = prefix / "QBSMTP.so";
    std::ofstream(text) << "not a library\n";
    EXPECT_FALSE(module.load({text.string()}, error));
    EXPECT_NE(error.find("cannot load"), std::string::npos) << error;
    EXPECT_EQ(module.set_logging, nullptr);
}

TEST_F(ModuleLoader, ALibraryWithoutTheExportsIsRefusedWhole) {
    // The C library: loaded already, and surely without SMTPSetLogging.
    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&std::printf), &info), 0);
    EXPECT_FALSE(module.load({info.dli_fname}, error));
    EXPECT_NE(error.find("SMTPSetLogging"), std::string::npos) << error;
    EXPECT_EQ(module.set_logging, nullptr);
    EXPECT_TRUE(module.path.empty());
}

}  // namespace
}  // namespace qbsmtp::host
