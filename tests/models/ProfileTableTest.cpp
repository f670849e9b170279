// The profile table against the model tables it was transcribed from: the summary, the property
// cases, kinds and sub-cases, the invariants every profile keeps, image sizes, the Tv ladders,
// the two forms of negative numbers, singular spellings and the manual-focus tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "models/CameraConfig.h"
#include "models/PropertyNames.h"

namespace orq {
namespace {

std::string Narrow(const std::u16string& text) {
    return std::string(text.begin(), text.end());
}

TEST(ProfileTable, SummaryOfEveryModelInTableOrder) {
    struct Summary {
        std::u16string name;
        int32_t maxZoom;
        std::set<int32_t> constraints;
        bool video;
        size_t shootingModes;  // which properties: the table of cases below
    };
    // clang-format off
    const std::vector<Summary> expected = {
        {u"A1400", 63, {0}, false, 16},           {u"A2200", 6, {0, 3}, false, 25},
        {u"A4000", 126, {0}, false, 20},          {u"A495", 6, {0}, false, 16},
        {u"A800", 6, {0}, false, 16},             {u"A810", 63, {0}, true, 22},
        {u"G15", 120, {0, 1, 2, 3}, false, 29},   {u"IXUS145", 100, {0}, false, 16},
        {u"SX130", 125, {0, 1, 2}, false, 25},    {u"SX150", 125, {0, 1, 2, 3}, false, 26},
        {u"SX160", 125, {0, 1, 2, 3}, false, 20}, {u"SX170", 125, {0, 1, 2, 3}, false, 19},
        {u"SX40", 200, {0, 1, 2}, false, 29},     {u"SX500", 125, {0, 1, 2, 3}, false, 20},
        {u"SX510", 126, {0, 1, 2, 3}, false, 22},
    };
    // clang-format on
    const std::vector<CameraConfig>& table = CameraConfigTable();
    ASSERT_EQ(table.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(Narrow(expected[i].name));
        EXPECT_EQ(table[i].name, expected[i].name);
        EXPECT_EQ(table[i].maxZoom, expected[i].maxZoom);
        EXPECT_EQ(table[i].constraints, expected[i].constraints);
        EXPECT_EQ(table[i].videoSupported, expected[i].video);
        EXPECT_EQ(table[i].Find(ORQ_PROP_SHOOTING_MODE)->values.size(), expected[i].shootingModes);
    }
}

TEST(ProfileTable, PropertyCasesOfEveryModel) {
    constexpr int32_t X = INT_MIN;  // the model lacks the property
    struct Row {
        int32_t id;
        int32_t cases[15];  // in table order of the models
    };
    // Shooting Mode's case comes with its writer, checked with the kinds. Of the colour
    // adjustments, 18 follows the pattern of 16, and 20 and 21 that of 19 and 22.
    const Row rows[] = {
        {1, {221, 222, 222, 220, 222, 222, 222, 221, 222, 222, 222, 221, 222, 222, 221}},
        {2, {167, 57, 57, 57, 57, 57, 57, 57, 57, 57, 57, 57, 57, 57, 57}},
        {3, {157, 157, 157, 155, 157, 157, 157, 157, 157, 157, 157, 157, 157, 157, 157}},
        {4, {271, 272, 272, 270, 272, 272, 272, 271, 272, 272, 272, 271, 272, 272, 271}},
        {5, {143, 143, 143, 143, 143, 143, 143, 143, 143, 143, 143, 143, 121, 143, 143}},
        {6, {219, 220, 220, 218, 220, 220, 220, 219, 220, 220, 220, 219, 220, 220, 219}},
        {7, {149, 149, 149, 149, 149, 149, 149, 149, 149, 149, 149, 149, 149, 149, 149}},
        {8, {X, X, X, X, X, X, 26, X, 26, 26, 26, 26, 26, 26, 26}},
        {9, {X, X, X, X, X, X, 268, X, 268, 268, 268, 267, 268, 268, 267}},
        {10, {X, X, X, 107, 107, X, X, 107, 211, 107, 107, 107, 107, 107, 107}},
        {11, {X, 127, 127, X, X, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127}},
        {13, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}},
        {14, {6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6}},
        {15, {X, 188, X, X, X, X, 188, X, X, 188, 188, 187, X, 188, 187}},
        {16, {X, 59, X, X, X, X, 59, X, X, 59, 59, 59, X, 59, 59}},
        {17, {X, 229, X, X, X, X, 229, X, X, 229, 229, 228, X, 229, 228}},
        {19, {X, X, X, X, X, X, 179, X, X, 179, 179, 178, X, 179, 178}},
        {22, {X, X, X, X, X, X, 180, X, X, 180, 180, 179, X, 180, 179}},
        {23, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}},
        {24, {-1, X, X, X, X, -1, X, X, X, X, -1, -1, X, X, X}},
        {25, {X, X, X, X, X, X, X, X, X, -1, -1, -1, X, X, X}},
    };
    const std::vector<CameraConfig>& table = CameraConfigTable();
    for (size_t m = 0; m < table.size(); ++m) {
        for (const Row& row : rows) {
            SCOPED_TRACE(Narrow(table[m].name) + " id " + std::to_string(row.id));
            const PropertyEntry* entry = table[m].Find(row.id);
            if (row.cases[m] == X) {
                EXPECT_EQ(entry, nullptr);
            } else {
                ASSERT_NE(entry, nullptr);
                EXPECT_EQ(entry->propCase, row.cases[m]);
            }
        }
    }
}

TEST(ProfileTable, KindsSubCasesAndInvariantsOfEveryEntry) {
    // The sub-case written after the main case, per model in table order; 0: the case alone.
    const std::map<int32_t, std::array<int32_t, 15>> subCases = {
        {6, {216, 217, 217, 215, 217, 217, 217, 216, 217, 217, 217, 216, 217, 217, 216}},
        {10, {0, 0, 0, 209, 211, 0, 0, 210, 0, 211, 211, 210, 211, 211, 210}},
    };
    // Entries built by their own kind of writer.
    const std::map<int32_t, PropertyKind> writers = {
        {ORQ_PROP_SHOOTING_MODE, PropertyKind::CaptureMode},
        {ORQ_PROP_FLASH_POWER, PropertyKind::FlashPower},
        {ORQ_PROP_MANUAL_FOCUS_MODE, PropertyKind::ManualFocus}};
    const std::vector<CameraConfig>& table = CameraConfigTable();
    for (size_t m = 0; m < table.size(); ++m) {
        const CameraConfig& model = table[m];
        EXPECT_EQ(model.Has(ORQ_PROP_MANUAL_FOCUS_MODE), !model.focusTable.empty());
        for (const auto& [id, entry] : model.properties) {
            SCOPED_TRACE(Narrow(model.name) + " id " + std::to_string(id));
            const int32_t subCase = subCases.count(id) ? subCases.at(id)[m] : 0;
            PropertyKind kind = subCase ? PropertyKind::SubProperty : PropertyKind::Plain;
            if (writers.count(id)) kind = writers.at(id);
            // The A810 writes a third case for red eye.
            if (model.name == u"A810" && id == ORQ_PROP_RED_EYE_MODE)
                kind = PropertyKind::SubProperty2;
            EXPECT_EQ(entry.kind, kind);
            if (!writers.count(id)) {
                EXPECT_EQ(entry.subCase1, subCase);
                EXPECT_EQ(entry.subCase2, kind == PropertyKind::SubProperty2 ? 5 : 0);
            }
            // Ids beyond the table of cases have no name.
            EXPECT_NE(PropertyNames().count(id), 0u);
            std::set<int32_t> values, cameraValues;
            for (const PropertyValue& record : entry.values) {
                EXPECT_NE(PropertyValueNames().count({id, record.value}), 0u) << record.value;
                values.insert(record.value);
                cameraValues.insert(record.cameraValue);
            }
            // No table reads two ways; G15's white balance is the one value listed twice.
            EXPECT_EQ(cameraValues.size(), entry.values.size());
            const bool g15Custom = model.name == u"G15" && id == ORQ_PROP_WB_MODE;
            EXPECT_EQ(values.size() + (g15Custom ? 1 : 0), entry.values.size());
        }
    }
}

TEST(ProfileTable, ImageSizes) {
    using Sizes = std::vector<std::array<int32_t, 4>>;  // value, camera value, width, height
    // The lists of A2200 and A800, of G15, SX130 and SX40, and of SX160, SX170 and SX500 are
    // made of records these already hold.
    // clang-format off
    const std::vector<std::pair<std::vector<std::u16string>, Sizes>> groups = {
        {{u"A1400", u"A4000", u"A810"},
         {{0, 0, 4608, 3456}, {1, 1, 3264, 2448}, {2, 2, 1600, 1200}, {4, 4, 640, 480},
          {5, 7, 2304, 1728}}},
        {{u"A495"},
         {{0, 0, 3648, 2736}, {1, 1, 2816, 2112}, {2, 2, 2272, 1704}, {3, 3, 1600, 1200},
          {4, 4, 640, 480}}},
        {{u"IXUS145"},
         {{0, 0, 4608, 3456}, {1, 1, 3264, 2448}, {2, 2, 2048, 1536}, {4, 4, 640, 480}}},
        {{u"SX150"},
         {{0, 0, 4320, 3240}, {1, 1, 3072, 2304}, {2, 2, 1600, 1200}, {4, 4, 640, 480}}},
        {{u"SX510"},
         {{0, 0, 4000, 3000}, {1, 1, 2816, 2112}, {2, 2, 1600, 1200}, {4, 4, 640, 480},
          {5, 7, 1984, 1488}}},
    };
    // clang-format on
    for (const auto& [names, sizes] : groups) {
        for (const std::u16string& name : names) {
            Sizes actual;
            for (const PropertyValue& r :
                 FindCameraConfig(name)->Find(ORQ_PROP_IMAGE_SIZE)->values) {
                actual.push_back({r.value, r.cameraValue, r.width, r.height});
            }
            EXPECT_EQ(actual, sizes) << Narrow(name);
        }
    }
}

TEST(TvTables, LengthEndsFormAndDeviationOfEveryModel) {
    // The first camera value gives the form and whether the long times are shifted, the last
    // whether the short ones are; the count with the shortest time says whether 40000 is gone.
    struct Expected {
        const char16_t* model;
        size_t count;
        PropertyValue first, last;
        bool has40000;
    };
    // The SX150 builds its ladder as the SX130 does, the SX500 as the SX170.
    const Expected expected[] = {
        {u"G15", 49, {150000, 65152}, {1, 1152}, true},
        {u"SX130", 46, {150000, -352}, {4, 1088}, false},
        {u"SX160", 47, {150000, -352}, {2, 1120}, false},
        {u"SX170", 48, {150000, 65152}, {2, 1120}, true},
        {u"SX40", 46, {150000, -384}, {4, 1056}, false},
        {u"SX510", 45, {150000, 65152}, {6, 1024}, true},
    };
    for (const Expected& e : expected) {
        SCOPED_TRACE(Narrow(e.model));
        const PropertyEntry& tv = *FindCameraConfig(e.model)->Find(ORQ_PROP_TV);
        ASSERT_EQ(tv.values.size(), e.count);
        EXPECT_EQ(tv.values.front().value, e.first.value);
        EXPECT_EQ(tv.values.front().cameraValue, e.first.cameraValue);
        EXPECT_EQ(tv.values.back().value, e.last.value);
        EXPECT_EQ(tv.values.back().cameraValue, e.last.cameraValue);
        EXPECT_EQ(tv.FromSdk(40000) != nullptr, e.has40000);
    }
}

TEST(Negatives, EachCompensationTableKeepsItsCamerasForm) {
    // Signed on these tables only; everywhere else a negative is written in 16 bits.
    const std::set<std::pair<std::u16string, int32_t>> signedTables = {
        {u"SX130", ORQ_PROP_EXPOSURE_COMPENSATION},
        {u"SX130", ORQ_PROP_FLASH_COMPENSATION},
        {u"SX150", ORQ_PROP_FLASH_COMPENSATION}};
    for (const CameraConfig& model : CameraConfigTable()) {
        for (int32_t id : {ORQ_PROP_EXPOSURE_COMPENSATION, ORQ_PROP_FLASH_COMPENSATION}) {
            const PropertyEntry* entry = model.Find(id);
            if (!entry) continue;
            const bool isSigned = signedTables.count({model.name, id}) != 0;
            EXPECT_EQ(entry->FromSdk(167)->cameraValue, isSigned ? -32 : 65504)
                << Narrow(model.name) << " " << id;
        }
    }
}

TEST(ValueTables, SingularSpellings) {
    struct Case {
        const char16_t* model;
        int32_t id, value, raw;
        const char* what;
    } cases[] = {
        {u"A495", ORQ_PROP_RED_EYE_MODE, 0, 1, "inverted on the camera"},
        {u"SX160", ORQ_PROP_MY_COLORS, 10, 8, "crossed numbers"},
        {u"A1400", ORQ_PROP_JPEG_QUALITY, 3, 10, "a value of one model only"},
        {u"SX500", ORQ_PROP_AV, 34, 352, "\"3.4\" on the number of another model's \"3.5\""},
        {u"SX130", ORQ_PROP_AV, 34, 347, "\"3.4\" on its own number"},
        {u"G15", ORQ_PROP_WB_MODE, 9, 8, "the first of two custom slots"},
    };
    for (const Case& c : cases) {
        int32_t raw = 0;
        EXPECT_TRUE(FindCameraConfig(c.model)->ToCameraValue(c.id, c.value, raw)) << c.what;
        EXPECT_EQ(raw, c.raw) << Narrow(c.model) << ": " << c.what;
    }
    // Either of the G15's custom slots reads back as its one value.
    const PropertyEntry& wb = *FindCameraConfig(u"G15")->Find(ORQ_PROP_WB_MODE);
    EXPECT_EQ(wb.FromCamera(9)->value, 9);
}

TEST(FocusTables, ShapeAndAnchors) {
    struct Row {
        size_t zoomStep;
        std::array<int32_t, 3> first, last;
    };
    struct Shape {
        std::u16string model;
        size_t entries;   // a slip in any one list length shows here
        int32_t largest;  // the smallest starts the first list
        std::vector<Row> rows;
    };
    // clang-format off
    const Shape shapes[] = {
        {u"SX150", 24993, 487805,
         {{0, {69, 70, 71}, {1855, 2450, 3722}},
          {125, {1081, 1082, 1083}, {187266, 270270, 487805}}}},
        {u"SX160", 78814, 1694915,
         {{0, {68, 69, 70}, {3350, 4168, 6437}},
          {125, {676, 677, 678}, {689655, 917431, 1369863}}}},
    };
    // clang-format on
    for (const Shape& shape : shapes) {
        SCOPED_TRACE(std::string(shape.model.begin(), shape.model.end()));
        const FocusTable& table = FindCameraConfig(shape.model)->focusTable;
        ASSERT_EQ(table.size(), 126u);
        size_t entries = 0;
        int32_t largest = INT32_MIN;
        for (size_t z = 0; z < table.size(); ++z) {
            const std::vector<int32_t>& list = table[z];
            ASSERT_FALSE(list.empty()) << z;
            EXPECT_TRUE(std::adjacent_find(list.begin(), list.end(),
                                           std::greater_equal<int32_t>()) == list.end())
                << "not strictly ascending at zoom step " << z;
            entries += list.size();
            EXPECT_GE(list.front(), table[0].front()) << z;
            largest = std::max(largest, list.back());
        }
        EXPECT_EQ(entries, shape.entries);
        EXPECT_EQ(largest, shape.largest);
        for (const Row& row : shape.rows) {
            const std::vector<int32_t>& list = table[row.zoomStep];
            EXPECT_TRUE(std::equal(row.first.begin(), row.first.end(), list.begin()))
                << row.zoomStep;
            EXPECT_TRUE(std::equal(row.last.begin(), row.last.end(), list.end() - 3))
                << row.zoomStep;
        }
    }
    // The SX170 shares the SX160's table; which models have one at all is checked with the kinds.
    EXPECT_EQ(FindCameraConfig(u"SX170")->focusTable, FindCameraConfig(u"SX160")->focusTable);
}

TEST(FindCameraConfig, FirstModelInTableOrderWhoseCodeOccurs) {
    // A code inside a longer model number still matches.
    EXPECT_EQ(FindCameraConfig(u"Quillo Snapwise SX400 Plus")->name, u"SX40");
    // Two codes: the one earlier in the table wins, wherever it stands in the string.
    EXPECT_EQ(FindCameraConfig(u"SX40 A810")->name, u"A810");
    EXPECT_EQ(FindCameraConfig(u"Quillo Snapwise sx150 Plus"), nullptr);

    // The copying form leaves its target alone on a miss.
    CameraConfig target;
    target.name = u"untouched";
    EXPECT_FALSE(FindCameraConfig(u"SX 150", target));
    EXPECT_EQ(target.name, u"untouched");
}

}  // namespace
}  // namespace orq
