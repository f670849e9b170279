// The walk along a zoom step's list of focus stops.
#include <gtest/gtest.h>

#include <climits>

#include "Kernel/DeviceLL.h"

namespace {

using orq::DeviceLL;
using orq::FocusTable;

const FocusTable kTable = {{10, 20, 30, 40}};

int32_t Next(int32_t focus, int32_t shift, const FocusTable& table = kTable, int32_t zoom = 0) {
    return DeviceLL::NextFocusPosition(table, zoom, focus, shift);
}

TEST(FocusTable, WalksFromTheNearestStop) {
    struct Case {
        int32_t focus, shift, target;
    } cases[] = {
        {20, 1, 30},  {20, -1, 10},               // on a stop
        {24, 1, 30},                              // 20 is nearer than 30
        {25, 1, 40},                              // a tie keeps the farther stop
        {26, -1, 20}, {16, 2, 40},  {40, 1, -1},  // off the far end: infinity
        {10, -1, 10},                             // below the first stop stays on it
        {5, -3, 10},  {5, 1, 20},                 // below the list
        {50, -1, 30}, {50, 0, 40},                // above the list starts at the last stop
        {-1, 1, -1},  {-1, 0, -1},                // nothing lies beyond infinity
        {-1, -1, 40}, {-1, -2, 30}, {-1, -9, 10}, {30, 0, 30}, {20, 2, 40}, {20, 3, -1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Next(c.focus, c.shift), c.target) << "focus " << c.focus << " shift " << c.shift;
    }
}

TEST(FocusTable, ListIsChosenByZoomStepWithinRange) {
    const FocusTable table = {{1, 2, 3}, {100, 200, 300}};
    EXPECT_EQ(Next(100, 1, table, 1), 200);
    EXPECT_EQ(Next(100, 1, table, 7), 200);  // above the last list
    EXPECT_EQ(Next(2, 1, table, -3), 3);     // below the first list
    EXPECT_EQ(Next(2, 1, table, 0), 3);
}

TEST(FocusTable, ExtremeValuesDoNotOverflow) {
    EXPECT_EQ(Next(20, INT32_MAX), -1);
    EXPECT_EQ(Next(20, INT32_MIN), 10);
    EXPECT_EQ(Next(-1, INT32_MIN), 10);
    EXPECT_EQ(Next(INT32_MAX, -1), 30);
    EXPECT_EQ(Next(INT32_MIN, 1), 20);
    EXPECT_EQ(Next(INT32_MIN + 1, -1), 10);
}

TEST(FocusTable, LongListIsSearchedExactly) {
    // Dense at the start, widening gaps at the end, as the real tables are.
    std::vector<int32_t> stops;
    for (int32_t i = 0; i < 2000; ++i) stops.push_back(600 + i + (i > 1500 ? (i - 1500) * 900 : 0));
    const FocusTable table = {stops};
    for (size_t i = 1; i + 1 < stops.size(); i += 97) {
        EXPECT_EQ(Next(stops[i], 1, table), stops[i + 1]);
        EXPECT_EQ(Next(stops[i], -1, table), stops[i - 1]);
        // One past a stop: the next stop itself, a tie that keeps the farther stop, or nearer
        // to the stop before.
        const int32_t gap = stops[i + 1] - stops[i];
        EXPECT_EQ(Next(stops[i] + 1, 0, table), gap <= 2 ? stops[i + 1] : stops[i]);
    }
    EXPECT_EQ(Next(stops.back() - 1, 1, table), -1);
}

}  // namespace
