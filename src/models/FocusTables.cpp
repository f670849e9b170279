// Manual focus stops of the SX150 and the SX160 (shared by the SX170), one strictly ascending
// list per zoom step.
//
// Only the shape of these tables is known: the length of every list, the first and last three
// numbers of a few rows, and each table's smallest and largest number. The rest is generated here
// from those anchors, once, while the library loads. Focus positions behave like the reciprocal
// of the focus distance: they crowd together at the near end of a list and spread out steeply
// towards its far end. So every interpolation below is linear in 1/position, which gives that
// shape. It is done in 64-bit integers only, so that every compiler and platform produces the
// same numbers.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "models/ModelData.h"

namespace orq::models {

namespace {

// A row whose ends are known.
struct KnownRow {
    int32_t zoomStep;
    std::array<int32_t, 3> first;
    std::array<int32_t, 3> last;
};

struct Anchor {
    int32_t zoomStep;
    int64_t value;
};

struct FocusTableShape {
    std::vector<int32_t> lengths;   // one per zoom step
    std::vector<KnownRow> known;    // ascending zoom steps, the first and the last step among them
    std::vector<Anchor> extraLast;  // last numbers of further rows
};

int64_t RoundedDivide(int64_t numerator, int64_t denominator) {
    return (numerator + denominator / 2) / denominator;
}

// The number at `position` (0 .. steps) on the way from a to b, evenly spaced in 1/number:
// steps*a*b / ((steps-position)*b + position*a).
int64_t ReciprocalStep(int64_t a, int64_t b, int64_t steps, int64_t position) {
    return RoundedDivide(steps * a * b, (steps - position) * b + position * a);
}

// The value at zoomStep between the two anchors around it.
int64_t Interpolate(const std::vector<Anchor>& anchors, int32_t zoomStep) {
    for (size_t i = 0; i + 1 < anchors.size(); ++i) {
        const Anchor& a = anchors[i];
        const Anchor& b = anchors[i + 1];
        if (zoomStep >= a.zoomStep && zoomStep <= b.zoomStep) {
            return ReciprocalStep(a.value, b.value, b.zoomStep - a.zoomStep, zoomStep - a.zoomStep);
        }
    }
    return anchors.back().value;  // not reached: the known rows span every zoom step
}

// count numbers strictly between low and high. Where the curve would repeat a number (its near
// end, where the gaps are under 1) the list simply counts up by one instead.
std::vector<int32_t> Fill(int64_t low, int64_t high, int64_t count) {
    std::vector<int64_t> numbers;
    int64_t previous = low;
    for (int64_t i = 1; i <= count; ++i) {
        int64_t number = ReciprocalStep(low, high, count + 1, i);
        if (number <= previous) number = previous + 1;
        numbers.push_back(number);
        previous = number;
    }
    // Counting up by one may in principle reach the far end; pull such numbers back below it.
    int64_t next = high;
    for (auto it = numbers.rbegin(); it != numbers.rend(); ++it) {
        if (*it >= next) *it = next - 1;
        next = *it;
    }
    return std::vector<int32_t>(numbers.begin(), numbers.end());
}

FocusTable Generate(const FocusTableShape& shape) {
    std::vector<Anchor> firstAnchors;
    std::vector<Anchor> lastAnchors = shape.extraLast;
    for (const KnownRow& row : shape.known) {
        firstAnchors.push_back({row.zoomStep, row.first[0]});
        lastAnchors.push_back({row.zoomStep, row.last[2]});
    }
    std::sort(lastAnchors.begin(), lastAnchors.end(),
              [](const Anchor& a, const Anchor& b) { return a.zoomStep < b.zoomStep; });

    FocusTable table;
    for (int32_t zoomStep = 0; zoomStep < static_cast<int32_t>(shape.lengths.size()); ++zoomStep) {
        std::vector<int32_t> head;
        std::vector<int32_t> tail;
        const KnownRow* known = nullptr;
        for (const KnownRow& row : shape.known) {
            if (row.zoomStep == zoomStep) known = &row;
        }
        if (known) {
            head.assign(known->first.begin(), known->first.end());
            tail.assign(known->last.begin(), known->last.end());
        } else {
            head.push_back(static_cast<int32_t>(Interpolate(firstAnchors, zoomStep)));
            tail.push_back(static_cast<int32_t>(Interpolate(lastAnchors, zoomStep)));
        }
        const int64_t between = shape.lengths[zoomStep] - static_cast<int64_t>(head.size()) -
                                static_cast<int64_t>(tail.size());
        std::vector<int32_t> list = head;
        const std::vector<int32_t> middle = Fill(head.back(), tail.front(), between);
        list.insert(list.end(), middle.begin(), middle.end());
        list.insert(list.end(), tail.begin(), tail.end());
        table.push_back(std::move(list));
    }
    return table;
}

FocusTableShape SX150Shape() {
    FocusTableShape shape;
    shape.lengths = {
        147, 134, 136, 140, 142, 127, 128, 133, 116, 123, 124, 129, 133, 136, 142, 117, 122, 127,
        132, 137, 142, 147, 110, 115, 121, 126, 131, 137, 143, 95,  100, 104, 110, 75,  78,  82,
        39,  42,  43,  47,  47,  51,  52,  51,  52,  56,  57,  61,  64,  67,  70,  73,  76,  80,
        83,  87,  91,  95,  99,  103, 107, 112, 117, 121, 125, 131, 135, 140, 146, 150, 156, 161,
        168, 171, 180, 184, 192, 196, 203, 209, 215, 222, 228, 234, 240, 245, 250, 254, 262, 269,
        275, 278, 284, 291, 297, 302, 308, 314, 319, 325, 331, 337, 340, 347, 352, 358, 363, 369,
        374, 379, 385, 385, 397, 399, 407, 412, 419, 424, 431, 438, 445, 453, 462, 471, 480, 492,
    };
    shape.known = {
        {0, {69, 70, 71}, {1855, 2450, 3722}},
        {1, {88, 89, 90}, {2595, 3722, 6718}},
        {36, {971, 994, 1013}, {9147, 12329, 18904}},
        {60, {1069, 1079, 1083}, {27352, 36470, 54705}},
        {100, {1077, 1080, 1082}, {112867, 163132, 293255}},
        {125, {1081, 1082, 1083}, {187266, 270270, 487805}},
    };
    return shape;
}

FocusTableShape SX160Shape() {
    FocusTableShape shape;
    shape.lengths = {
        204,  184,  189,  200,  201,  191,  209,  204,  196,  199,  214,  225,  214,  226,
        229,  223,  218,  244,  234,  236,  237,  263,  245,  257,  256,  270,  282,  260,
        266,  290,  300,  283,  284,  301,  295,  305,  244,  277,  292,  283,  304,  149,
        154,  165,  172,  183,  190,  203,  212,  226,  191,  204,  180,  192,  200,  186,
        193,  183,  189,  182,  188,  204,  208,  227,  231,  250,  258,  278,  289,  304,
        318,  335,  345,  371,  382,  404,  422,  442,  459,  466,  508,  519,  592,  606,
        639,  639,  743,  743,  798,  798,  882,  902,  966,  966,  1033, 990,  1072, 1072,
        1162, 1162, 1136, 1206, 1223, 1223, 1333, 1363, 1406, 1406, 1510, 1510, 1547, 1556,
        1646, 1623, 1716, 1691, 1776, 1776, 1796, 1796, 1908, 1908, 2086, 2064, 1914, 1934,
    };
    shape.known = {
        {0, {68, 69, 70}, {3350, 4168, 6437}},
        {1, {69, 70, 71}, {3350, 4168, 6437}},
        {41, {462, 465, 468}, {17687, 24765, 41271}},
        {60, {969, 974, 979}, {51813, 72516, 120919}},
        {100, {676, 678, 679}, {308642, 411523, 617284}},
        {125, {676, 677, 678}, {689655, 917431, 1369863}},
    };
    // The table's largest number ends no known row; it ends the longest list, the one that
    // reaches furthest.
    shape.extraLast = {{122, 1694915}};
    return shape;
}

}  // namespace

const FocusTable& SX150FocusTable() {
    static const FocusTable table = Generate(SX150Shape());
    return table;
}

const FocusTable& SX160FocusTable() {
    static const FocusTable table = Generate(SX160Shape());
    return table;
}

}  // namespace orq::models
