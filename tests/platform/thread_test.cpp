// Threads from _beginthreadex: they run, their handles live apart from
// them, ids are unique, failures come with a Win32 code.
#include <atomic>
#include <set>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp::os {
namespace {

struct Counter {
    std::atomic<int> runs{0};
    std::atomic<DWORD> last_error_seen{99};
};

unsigned count_run(void* argument) {
    auto* counter = static_cast<Counter*>(argument);
    counter->last_error_seen = GetLastError();
    counter->runs.fetch_add(1);
    return 0;
}

void wait_for(const Counter& counter, int runs) {
    for (int i = 0; i < 2000 && counter.runs.load() < runs; ++i) Sleep(1);
}

TEST(Threads, StartRunDetachedWithUniqueIdsAndOwnLastError) {
    Counter counter;
    std::set<unsigned> ids;
    SetLastError(1234);
    for (int i = 0; i < 16; ++i) {
        unsigned id = 0;
        std::uintptr_t handle = _beginthreadex(nullptr, 0, count_run, &counter, 0, &id);
        ASSERT_NE(handle, 0u);
        EXPECT_NE(id, 0u);
        ids.insert(id);
        // The thread may already have ended: closing the handle is still fine.
        EXPECT_TRUE(CloseHandle(reinterpret_cast<HANDLE>(handle)));
    }
    wait_for(counter, 16);
    EXPECT_EQ(counter.runs.load(), 16);
    EXPECT_EQ(ids.size(), 16u);
    EXPECT_EQ(counter.last_error_seen.load(), 0u);
    EXPECT_FALSE(CloseHandle(reinterpret_cast<HANDLE>(std::uintptr_t{1})));
}

TEST(Threads, SmallStackRequestStillRuns) {
    Counter counter;
    unsigned id;
    std::uintptr_t handle = _beginthreadex(nullptr, 1024, count_run, &counter, 0, &id);
    ASSERT_NE(handle, 0u);
    wait_for(counter, 1);
    EXPECT_EQ(counter.runs.load(), 1);
    CloseHandle(reinterpret_cast<HANDLE>(handle));
}

TEST(Threads, FailureGivesZeroAndDoserrno) {
    Counter counter;
    unsigned id = 0;
    {
        FaultScope scope(Op::BeginThread, 1, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(_beginthreadex(nullptr, 0, count_run, &counter, 0, &id), 0u);
        EXPECT_EQ(doserrno(), ERROR_NOT_ENOUGH_MEMORY);
    }
    EXPECT_EQ(_beginthreadex(nullptr, 0, nullptr, &counter, 0, &id), 0u);
    EXPECT_EQ(doserrno(), ERROR_INVALID_PARAMETER);
    Sleep(10);
    EXPECT_EQ(counter.runs.load(), 0);
}

}  // namespace
}  // namespace qbsmtp::os
