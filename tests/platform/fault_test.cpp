// The fault seam: which call fails, with what, and for how long.
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp::os {
namespace {

// Outcome of the next n calls of LocalAlloc: true where it failed.
std::vector<bool> next_allocations(int n) {
    std::vector<bool> failed;
    for (int i = 0; i < n; ++i) {
        void* block = LocalAlloc(0, 1);
        failed.push_back(block == nullptr);
        LocalFree(block);
    }
    return failed;
}

TEST(FaultSeam, FailsExactlyTheNthCallOrEveryCallFromIt) {
    struct Row {
        unsigned nth;
        bool every_after;
        std::vector<bool> expected;
    };
    const Row rows[] = {
        {1, false, {true, false, false, false}},
        {3, false, {false, false, true, false}},
        {2, true, {false, true, true, true}},
        {0, false, {true, false, false, false}},  // 0 is taken as "the next"
    };
    for (const Row& row : rows) {
        FaultScope scope(Op::LocalAlloc, row.nth, 1234, row.every_after);
        EXPECT_EQ(next_allocations(4), row.expected) << row.nth << " " << row.every_after;
    }
    EXPECT_EQ(next_allocations(2), (std::vector<bool>{false, false}));
}

TEST(FaultSeam, HitSetsTheArmedCodeAsLastAndWinsockError) {
    FaultScope scope(Op::socket, 1, WSAEMFILE);
    SetLastError(0);
    EXPECT_TRUE(fault_hit(Op::socket));
    EXPECT_EQ(WSAGetLastError(), WSAEMFILE);
    EXPECT_FALSE(fault_hit(Op::socket));
    EXPECT_FALSE(fault_hit(Op::bind));
}

TEST(FaultSeam, CountsCallsSinceArmOrClear) {
    fault_clear();
    next_allocations(3);
    EXPECT_EQ(fault_calls(Op::LocalAlloc), 3u);
    EXPECT_EQ(fault_calls(Op::CreateFileA), 0u);
    fault_arm(Op::LocalAlloc, 100, 8);
    EXPECT_EQ(fault_calls(Op::LocalAlloc), 0u);
    next_allocations(2);
    EXPECT_EQ(fault_calls(Op::LocalAlloc), 2u);
    fault_clear();
    EXPECT_EQ(fault_calls(Op::LocalAlloc), 0u);
}

TEST(FaultSeam, CountingIsOverAllThreads) {
    FaultScope scope(Op::LocalAlloc, 41, 8);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                void* block = LocalAlloc(0, 1);
                if (block == nullptr) ++failures;
                LocalFree(block);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 1);
    EXPECT_EQ(fault_calls(Op::LocalAlloc), 80u);
}

}  // namespace
}  // namespace qbsmtp::os
