// LocalAlloc blocks: sizes, zeroing, foreign pointers, the C exports.
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp::os {
namespace {

TEST(LocalMemory, SizeIsWhatWasAskedAndBlocksAreAligned) {
    for (std::size_t bytes : {std::size_t{0}, std::size_t{1}, std::size_t{15}, std::size_t{4097}}) {
        void* block = LocalAlloc(LMEM_FIXED, bytes);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(LocalSize(block), bytes);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
        std::memset(block, 0x5A, bytes);
        EXPECT_EQ(LocalFree(block), nullptr);
    }
}

TEST(LocalMemory, ZeroInitClearsTheBlock) {
    // Dirty the heap first so that a missing clear would show.
    void* dirty = LocalAlloc(0, 256);
    std::memset(dirty, 0xFF, 256);
    LocalFree(dirty);
    auto* block = static_cast<unsigned char*>(LocalAlloc(LMEM_ZEROINIT, 256));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(block[i], 0) << i;
    LocalFree(block);
}

TEST(LocalMemory, FreeOfNullAndOfForeignPointers) {
    EXPECT_EQ(LocalFree(nullptr), nullptr);
    alignas(16) unsigned char foreign[64] = {};
    void* inside = foreign + 32;
    SetLastError(0);
    EXPECT_EQ(LocalFree(inside), inside);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(LocalSize(inside), 0u);
}

TEST(LocalMemory, ImpossibleSizeAndInjectedFailureGiveNotEnoughMemory) {
    SetLastError(0);
    EXPECT_EQ(LocalAlloc(0, SIZE_MAX - 4), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    FaultScope fault(Op::LocalAlloc, 2, ERROR_NOT_ENOUGH_MEMORY);
    void* first = LocalAlloc(0, 8);
    EXPECT_NE(first, nullptr);
    SetLastError(0);
    EXPECT_EQ(LocalAlloc(0, 8), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    void* third = LocalAlloc(0, 8);
    EXPECT_NE(third, nullptr);
    LocalFree(first);
    LocalFree(third);
}

TEST(LocalMemory, CExportsShareTheBlocksOfTheLayer) {
    void* block = ::LocalAlloc(0, 10);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(os::LocalSize(block), 10u);
    EXPECT_EQ(::LocalSize(block), 10u);
    EXPECT_EQ(::LocalFree(block), nullptr);
}

}  // namespace
}  // namespace qbsmtp::os

#include <dlfcn.h>

#include "support/temp_prefix.h"

namespace qbsmtp::os {
namespace {

TEST(LocalMemory, ModuleExportsTheLocalFunctions) {
    test::TempPrefix prefix;
    void* module = dlopen(QBSMTP_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    using Alloc = void* (*)(unsigned, size_t);
    using Free = void* (*)(void*);
    using Size = size_t (*)(void*);
    auto alloc = reinterpret_cast<Alloc>(dlsym(module, "LocalAlloc"));
    auto free_block = reinterpret_cast<Free>(dlsym(module, "LocalFree"));
    auto size = reinterpret_cast<Size>(dlsym(module, "LocalSize"));
    ASSERT_TRUE(alloc != nullptr && free_block != nullptr && size != nullptr);
    void* block = alloc(LMEM_ZEROINIT, 33);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(size(block), 33u);
    EXPECT_EQ(free_block(block), nullptr);
    dlclose(module);
}

}  // namespace
}  // namespace qbsmtp::os
