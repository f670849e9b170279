// Shape of the manual-focus tables: list lengths, anchors, bounds, order and the widening gaps.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>
#include <vector>

#include "models/CameraConfig.h"

namespace orq {
namespace {

struct TellingRow {
    size_t zoomStep;
    size_t length;
    std::array<int32_t, 3> first;
    std::array<int32_t, 3> last;
};

struct Shape {
    const char16_t* model;
    std::vector<size_t> lengths;
    std::vector<TellingRow> rows;
    size_t entries;
    int32_t smallest;
    int32_t largest;
    size_t shortestAt;
    size_t longestAt;
};

const Shape kSX150 = {
    u"SX150",
    {147, 134, 136, 140, 142, 127, 128, 133, 116, 123, 124, 129, 133, 136, 142, 117, 122, 127,
     132, 137, 142, 147, 110, 115, 121, 126, 131, 137, 143, 95,  100, 104, 110, 75,  78,  82,
     39,  42,  43,  47,  47,  51,  52,  51,  52,  56,  57,  61,  64,  67,  70,  73,  76,  80,
     83,  87,  91,  95,  99,  103, 107, 112, 117, 121, 125, 131, 135, 140, 146, 150, 156, 161,
     168, 171, 180, 184, 192, 196, 203, 209, 215, 222, 228, 234, 240, 245, 250, 254, 262, 269,
     275, 278, 284, 291, 297, 302, 308, 314, 319, 325, 331, 337, 340, 347, 352, 358, 363, 369,
     374, 379, 385, 385, 397, 399, 407, 412, 419, 424, 431, 438, 445, 453, 462, 471, 480, 492},
    {{0, 147, {69, 70, 71}, {1855, 2450, 3722}},
     {1, 134, {88, 89, 90}, {2595, 3722, 6718}},
     {36, 39, {971, 994, 1013}, {9147, 12329, 18904}},
     {60, 107, {1069, 1079, 1083}, {27352, 36470, 54705}},
     {100, 331, {1077, 1080, 1082}, {112867, 163132, 293255}},
     {125, 492, {1081, 1082, 1083}, {187266, 270270, 487805}}},
    24993,
    69,
    487805,
    36,
    125,
};

const Shape kSX160 = {
    u"SX160",
    {204,  184,  189,  200,  201,  191,  209,  204,  196,  199,  214,  225,  214,  226,  229,  223,
     218,  244,  234,  236,  237,  263,  245,  257,  256,  270,  282,  260,  266,  290,  300,  283,
     284,  301,  295,  305,  244,  277,  292,  283,  304,  149,  154,  165,  172,  183,  190,  203,
     212,  226,  191,  204,  180,  192,  200,  186,  193,  183,  189,  182,  188,  204,  208,  227,
     231,  250,  258,  278,  289,  304,  318,  335,  345,  371,  382,  404,  422,  442,  459,  466,
     508,  519,  592,  606,  639,  639,  743,  743,  798,  798,  882,  902,  966,  966,  1033, 990,
     1072, 1072, 1162, 1162, 1136, 1206, 1223, 1223, 1333, 1363, 1406, 1406, 1510, 1510, 1547, 1556,
     1646, 1623, 1716, 1691, 1776, 1776, 1796, 1796, 1908, 1908, 2086, 2064, 1914, 1934},
    {{0, 204, {68, 69, 70}, {3350, 4168, 6437}},
     {1, 184, {69, 70, 71}, {3350, 4168, 6437}},
     {41, 149, {462, 465, 468}, {17687, 24765, 41271}},
     {60, 188, {969, 974, 979}, {51813, 72516, 120919}},
     {100, 1136, {676, 678, 679}, {308642, 411523, 617284}},
     {125, 1934, {676, 677, 678}, {689655, 917431, 1369863}}},
    78814,
    68,
    1694915,
    41,
    122,
};

void ExpectShape(const FocusTable& table, const Shape& shape) {
    ASSERT_EQ(table.size(), 126u);
    ASSERT_EQ(shape.lengths.size(), 126u);
    size_t entries = 0;
    int32_t smallest = INT32_MAX;
    int32_t largest = INT32_MIN;
    for (size_t z = 0; z < table.size(); ++z) {
        SCOPED_TRACE(z);
        const std::vector<int32_t>& list = table[z];
        ASSERT_EQ(list.size(), shape.lengths[z]);
        EXPECT_TRUE(std::adjacent_find(list.begin(), list.end(), std::greater_equal<int32_t>()) ==
                    list.end())
            << "not strictly ascending";
        entries += list.size();
        smallest = std::min(smallest, list.front());
        largest = std::max(largest, list.back());

        // Close together at the near end, steeply apart at the far end.
        const size_t tenth = list.size() / 10;
        const double nearGap = double(list[tenth] - list[0]) / double(tenth);
        const double farGap = double(list.back() - list[list.size() - 1 - tenth]) / double(tenth);
        EXPECT_GT(farGap, 20 * nearGap);
    }
    EXPECT_EQ(entries, shape.entries);
    EXPECT_EQ(smallest, shape.smallest);
    EXPECT_EQ(largest, shape.largest);

    auto byLength = [](const std::vector<int32_t>& a, const std::vector<int32_t>& b) {
        return a.size() < b.size();
    };
    EXPECT_EQ(size_t(std::min_element(table.begin(), table.end(), byLength) - table.begin()),
              shape.shortestAt);
    EXPECT_EQ(size_t(std::max_element(table.begin(), table.end(), byLength) - table.begin()),
              shape.longestAt);

    for (const TellingRow& row : shape.rows) {
        SCOPED_TRACE(row.zoomStep);
        const std::vector<int32_t>& list = table[row.zoomStep];
        ASSERT_EQ(list.size(), row.length);
        EXPECT_TRUE(std::equal(row.first.begin(), row.first.end(), list.begin()));
        EXPECT_TRUE(std::equal(row.last.begin(), row.last.end(), list.end() - 3));
    }
}

TEST(FocusTables, SX150) {
    ExpectShape(FindCameraConfig(u"SX150")->focusTable, kSX150);
}

TEST(FocusTables, SX160AndSX170ShareOneTable) {
    const FocusTable& sx160 = FindCameraConfig(u"SX160")->focusTable;
    ExpectShape(sx160, kSX160);
    EXPECT_EQ(FindCameraConfig(u"SX170")->focusTable, sx160);
}

TEST(FocusTables, OnlyTheManualFocusModelsHaveOne) {
    for (const CameraConfig& model : CameraConfigTable()) {
        const bool expected =
            model.name == u"SX150" || model.name == u"SX160" || model.name == u"SX170";
        EXPECT_EQ(!model.focusTable.empty(), expected);
    }
}

}  // namespace
}  // namespace orq
