#include "memmgr.h"

#include <gtest/gtest.h>

#include "tests/support/support.h"

using namespace orq;
using orqtest::CountContaining;
using orqtest::LogLinesSince;
using orqtest::LogSize;

// The function may itself register and free: no lock is held while it runs.
TEST(MemoryManager, FreeRunsTheFunctionOnceAndForgetsThePointer) {
    int object = 0, inner = 0;
    int runs = 0, innerRuns = 0;
    memmgr::Register(
        &object,
        [&](void* p) {
            EXPECT_EQ(p, &object);
            ++runs;
            memmgr::Register(
                &inner, [&](void*) { ++innerRuns; }, __FILE__, __LINE__);
            memmgr::Free(&inner);
        },
        __FILE__, __LINE__);
    size_t start = LogSize();
    memmgr::Free(&object);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(innerRuns, 1);
    EXPECT_EQ(CountContaining(LogLinesSince(start), "OrqFree: unknown pointer"), 0);
    memmgr::Free(&object);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(CountContaining(LogLinesSince(start), "OrqFree: unknown pointer"), 1);
}

TEST(MemoryManager, SweepReleasesEverythingOnceAndReportsEachEntry) {
    int a = 0, b = 0, c = 0;
    int runs = 0;
    for (int* p : {&a, &b, &c})
        memmgr::Register(
            p, [&](void*) { ++runs; }, "dir/Owner.cpp", 77);
    size_t start = LogSize();
    memmgr::Sweep();
    EXPECT_EQ(runs, 3);
    auto lines = LogLinesSince(start);
    EXPECT_EQ(CountContaining(lines, "active free func: Owner 77"), 3);
    // A late release or a second sweep reports but never releases twice.
    memmgr::Free(&a);
    memmgr::Sweep();
    EXPECT_EQ(runs, 3);
    auto later = LogLinesSince(start);
    EXPECT_EQ(CountContaining(later, "active free func: Owner 77"), 5);
    memmgr::Free(&b);
    memmgr::Free(&c);
    size_t quiet = LogSize();
    memmgr::Sweep();
    EXPECT_TRUE(LogLinesSince(quiet).empty());
}
