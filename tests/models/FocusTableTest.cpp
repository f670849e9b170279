// Shape of the manual-focus tables: total length, anchors, bounds, order and the widening gaps.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "models/CameraConfig.h"

namespace orq {
namespace {

struct Anchors {
    size_t zoomStep;
    size_t length;
    std::array<int32_t, 3> first;
    std::array<int32_t, 3> last;
};

struct Shape {
    const char16_t* model;
    size_t entries;  // a slip in any one list length shows here
    int32_t smallest;
    int32_t largest;
    std::vector<Anchors> rows;
};

TEST(FocusTables, ShapeAndAnchors) {
    // clang-format off
    const Shape shapes[] = {
        {u"SX150", 24993, 69, 487805,
         {{0, 147, {69, 70, 71}, {1855, 2450, 3722}},
          {1, 134, {88, 89, 90}, {2595, 3722, 6718}},
          {36, 39, {971, 994, 1013}, {9147, 12329, 18904}},
          {60, 107, {1069, 1079, 1083}, {27352, 36470, 54705}},
          {100, 331, {1077, 1080, 1082}, {112867, 163132, 293255}},
          {125, 492, {1081, 1082, 1083}, {187266, 270270, 487805}}}},
        {u"SX160", 78814, 68, 1694915,
         {{0, 204, {68, 69, 70}, {3350, 4168, 6437}},
          {1, 184, {69, 70, 71}, {3350, 4168, 6437}},
          {41, 149, {462, 465, 468}, {17687, 24765, 41271}},
          {60, 188, {969, 974, 979}, {51813, 72516, 120919}},
          {100, 1136, {676, 678, 679}, {308642, 411523, 617284}},
          {125, 1934, {676, 677, 678}, {689655, 917431, 1369863}}}},
    };
    // clang-format on
    for (const Shape& shape : shapes) {
        const FocusTable& table = FindCameraConfig(shape.model)->focusTable;
        SCOPED_TRACE(shape.model == std::u16string(u"SX150") ? "SX150" : "SX160");
        ASSERT_EQ(table.size(), 126u);
        size_t entries = 0;
        int32_t smallest = INT32_MAX;
        int32_t largest = INT32_MIN;
        for (size_t z = 0; z < table.size(); ++z) {
            const std::vector<int32_t>& list = table[z];
            ASSERT_GE(list.size(), 10u) << z;
            EXPECT_TRUE(std::adjacent_find(list.begin(), list.end(),
                                           std::greater_equal<int32_t>()) == list.end())
                << "not strictly ascending at zoom step " << z;
            entries += list.size();
            smallest = std::min(smallest, list.front());
            largest = std::max(largest, list.back());
            // Close together at the near end, steeply apart at the far end.
            const size_t tenth = list.size() / 10;
            const double nearGap = double(list[tenth] - list[0]) / double(tenth);
            const double farGap =
                double(list.back() - list[list.size() - 1 - tenth]) / double(tenth);
            EXPECT_GT(farGap, 20 * nearGap) << z;
        }
        EXPECT_EQ(entries, shape.entries);
        EXPECT_EQ(smallest, shape.smallest);
        EXPECT_EQ(largest, shape.largest);

        for (const Anchors& row : shape.rows) {
            const std::vector<int32_t>& list = table[row.zoomStep];
            ASSERT_EQ(list.size(), row.length) << row.zoomStep;
            EXPECT_TRUE(std::equal(row.first.begin(), row.first.end(), list.begin()))
                << row.zoomStep;
            EXPECT_TRUE(std::equal(row.last.begin(), row.last.end(), list.end() - 3))
                << row.zoomStep;
        }
    }
    // The SX170 shares the SX160's table; which models have one at all is in the profile summary.
    EXPECT_EQ(FindCameraConfig(u"SX170")->focusTable, FindCameraConfig(u"SX160")->focusTable);
}

}  // namespace
}  // namespace orq
