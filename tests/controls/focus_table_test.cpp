// The walk along a zoom step's list of focus stops.
#include <gtest/gtest.h>

#include <climits>

#include "Kernel/DeviceLL.h"

namespace {

TEST(FocusTable, WalksFromTheNearestStopOfTheZoomStepsList) {
    const orq::FocusTable table = {{10, 20, 30, 40}, {100, 200, 300}};
    const struct {
        int32_t zoom, focus, shift, target;
    } cases[] = {
        {0, 20, -1, 10},        {0, 24, 1, 30},  // on a stop; off one, the nearer
        {0, 25, 1, 40},                          // a tie keeps the farther stop
        {0, 40, 1, -1},         {0, 20, 3, -1},  // off the far end: infinity
        {0, 10, -1, 10},        {0, 5, 1, 20},
        {0, 50, -1, 30},                                 // the near end holds; outside the list
        {0, -1, 1, -1},         {0, -1, 0, -1},          // nothing lies beyond infinity
        {0, -1, -1, 40},        {0, -1, -9, 10},         // from infinity: the last stop is -1
        {7, 100, 1, 200},       {-3, 20, 1, 30},         // zoom beyond the lists: the nearest list
        {0, 20, INT32_MAX, -1}, {0, 20, INT32_MIN, 10},  // no overflow anywhere
        {0, -1, INT32_MIN, 10}, {0, INT32_MAX, -1, 30},
        {0, INT32_MIN, 1, 20},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(orq::DeviceLL::NextFocusPosition(table, c.zoom, c.focus, c.shift), c.target)
            << "zoom " << c.zoom << " focus " << c.focus << " shift " << c.shift;
    }
}

}  // namespace
