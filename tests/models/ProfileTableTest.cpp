// The profile table against the model tables it was transcribed from: the summary, the property
// cases, the kinds and sub-cases, image sizes, and the invariants every profile keeps.
#include <gtest/gtest.h>

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

const std::vector<std::u16string> kModels = {u"A1400", u"A2200", u"A4000",   u"A495",  u"A800",
                                             u"A810",  u"G15",   u"IXUS145", u"SX130", u"SX150",
                                             u"SX160", u"SX170", u"SX40",    u"SX500", u"SX510"};

const CameraConfig& Model(const std::u16string& name) {
    for (const CameraConfig& model : CameraConfigTable()) {
        if (model.name == name) return model;
    }
    ADD_FAILURE() << "no model";
    return CameraConfigTable().front();
}

std::string Narrow(const std::u16string& text) {
    return std::string(text.begin(), text.end());
}

TEST(ProfileTable, SummaryOfEveryModelInTableOrder) {
    struct Summary {
        std::u16string name;
        int32_t maxZoom;
        std::set<int32_t> constraints;
        bool video;
        size_t properties;  // which ones: the table of cases below
        size_t shootingModes;
    };
    const std::vector<Summary> expected = {
        {u"A1400", 63, {0}, false, 12, 16},
        {u"A2200", 6, {0, 3}, false, 16, 25},
        {u"A4000", 126, {0}, false, 12, 20},
        {u"A495", 6, {0}, false, 12, 16},
        {u"A800", 6, {0}, false, 12, 16},
        {u"A810", 63, {0}, true, 13, 22},
        {u"G15", 120, {0, 1, 2, 3}, false, 22, 29},
        {u"IXUS145", 100, {0}, false, 13, 16},
        {u"SX130", 125, {0, 1, 2}, false, 15, 25},
        {u"SX150", 125, {0, 1, 2, 3}, false, 24, 26},
        {u"SX160", 125, {0, 1, 2, 3}, false, 25, 20},
        {u"SX170", 125, {0, 1, 2, 3}, false, 25, 19},
        {u"SX40", 200, {0, 1, 2}, false, 15, 29},
        {u"SX500", 125, {0, 1, 2, 3}, false, 23, 20},
        {u"SX510", 126, {0, 1, 2, 3}, false, 23, 22},
    };
    const std::vector<CameraConfig>& table = CameraConfigTable();
    ASSERT_EQ(table.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(Narrow(expected[i].name));
        EXPECT_EQ(table[i].name, expected[i].name);
        EXPECT_EQ(table[i].maxZoom, expected[i].maxZoom);
        EXPECT_EQ(table[i].constraints, expected[i].constraints);
        EXPECT_EQ(table[i].videoSupported, expected[i].video);
        EXPECT_EQ(table[i].properties.size(), expected[i].properties);
        EXPECT_EQ(table[i].Find(PROP_SHOOTING_MODE)->values.size(), expected[i].shootingModes);
    }
}

TEST(ProfileTable, PropertyCasesOfEveryModel) {
    constexpr int32_t X = INT_MIN;  // the model lacks the property
    struct Row {
        int32_t id;
        int32_t cases[15];  // in table order of the models
    };
    const Row rows[] = {
        {0, {49, 49, 49, 49, 49, 49, 49, 49, 49, 49, 49, 49, 49, 49, 49}},
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
        {18, {X, 55, X, X, X, X, 55, X, X, 55, 55, 55, X, 55, 55}},
        {19, {X, X, X, X, X, X, 179, X, X, 179, 179, 178, X, 179, 178}},
        {20, {X, X, X, X, X, X, 178, X, X, 178, 178, 177, X, 178, 177}},
        {21, {X, X, X, X, X, X, 177, X, X, 177, 177, 176, X, 177, 176}},
        {22, {X, X, X, X, X, X, 180, X, X, 180, 180, 179, X, 180, 179}},
        {23, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}},
        {24, {-1, X, X, X, X, -1, X, X, X, X, -1, -1, X, X, X}},
        {25, {X, X, X, X, X, X, X, X, X, -1, -1, -1, X, X, X}},
    };
    for (const Row& row : rows) {
        for (size_t m = 0; m < kModels.size(); ++m) {
            SCOPED_TRACE(Narrow(kModels[m]) + " id " + std::to_string(row.id));
            const PropertyEntry* entry = Model(kModels[m]).Find(row.id);
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
    for (size_t m = 0; m < kModels.size(); ++m) {
        const CameraConfig& model = Model(kModels[m]);
        EXPECT_EQ(model.Has(PROP_MANUAL_FOCUS_MODE), !model.focusTable.empty());
        if (!model.focusTable.empty()) {
            EXPECT_EQ(model.focusTable.size(), static_cast<size_t>(model.maxZoom) + 1);
        }
        for (const auto& [id, entry] : model.properties) {
            SCOPED_TRACE(Narrow(kModels[m]) + " id " + std::to_string(id));
            PropertyKind kind = PropertyKind::Plain;
            int32_t subCase1 = 0;
            int32_t subCase2 = 0;
            if (id == PROP_SHOOTING_MODE) {
                kind = PropertyKind::CaptureMode;
            } else if (id == PROP_FLASH_POWER) {
                kind = PropertyKind::FlashPower;
                subCase1 = 121;
                subCase2 = 141;
            } else if (id == PROP_MANUAL_FOCUS_MODE) {
                kind = PropertyKind::ManualFocus;
            } else if (subCases.count(id) && subCases.at(id)[m] != 0) {
                kind = PropertyKind::SubProperty;
                subCase1 = subCases.at(id)[m];
                // The A810 writes a third case for red eye.
                if (kModels[m] == u"A810" && id == PROP_RED_EYE_MODE) {
                    kind = PropertyKind::SubProperty2;
                    subCase2 = 5;
                }
            }
            EXPECT_EQ(entry.kind, kind);
            EXPECT_EQ(entry.subCase1, subCase1);
            EXPECT_EQ(entry.subCase2, subCase2);

            EXPECT_NE(PropertyNames().count(id), 0u);
            EXPECT_FALSE(entry.values.empty());
            std::set<int32_t> values;
            std::set<int32_t> cameraValues;
            for (const PropertyValue& record : entry.values) {
                EXPECT_NE(PropertyValueNames().count({id, record.value}), 0u) << record.value;
                EXPECT_EQ(record.hasSize, id == PROP_IMAGE_SIZE);
                values.insert(record.value);
                cameraValues.insert(record.cameraValue);
            }
            // No table reads two ways; G15's white balance is the one value listed twice.
            EXPECT_EQ(cameraValues.size(), entry.values.size());
            const bool g15Custom = model.name == u"G15" && id == PROP_WB_MODE;
            EXPECT_EQ(values.size() + (g15Custom ? 1 : 0), entry.values.size());
        }
        // Auto, Program, Manual, AV and TV are the same numbers wherever they exist.
        const int32_t common[] = {32768, 32772, 32769, 32770, 32771};
        for (int32_t value = 0; value < 5; ++value) {
            int32_t raw = 0;
            if (model.ToCameraValue(PROP_SHOOTING_MODE, value, raw)) {
                EXPECT_EQ(raw, common[value]) << Narrow(kModels[m]) << " " << value;
            }
        }
    }
}

TEST(ProfileTable, ImageSizes) {
    using Sizes = std::vector<std::array<int32_t, 4>>;  // value, camera value, width, height
    // clang-format off
    const std::vector<std::pair<std::vector<std::u16string>, Sizes>> groups = {
        {{u"A1400", u"A4000", u"A810"},
         {{0, 0, 4608, 3456}, {1, 1, 3264, 2448}, {2, 2, 1600, 1200}, {4, 4, 640, 480},
          {5, 7, 2304, 1728}}},
        {{u"A2200", u"A800"},
         {{0, 0, 3648, 2736}, {1, 1, 2816, 2112}, {2, 2, 1600, 1200}, {4, 4, 640, 480}}},
        {{u"A495"},
         {{0, 0, 3648, 2736}, {1, 1, 2816, 2112}, {2, 2, 2272, 1704}, {3, 3, 1600, 1200},
          {4, 4, 640, 480}}},
        {{u"G15", u"SX130", u"SX40"},
         {{0, 0, 4000, 3000}, {1, 1, 2816, 2112}, {2, 2, 1600, 1200}, {4, 4, 640, 480}}},
        {{u"IXUS145"},
         {{0, 0, 4608, 3456}, {1, 1, 3264, 2448}, {2, 2, 2048, 1536}, {4, 4, 640, 480}}},
        {{u"SX150"},
         {{0, 0, 4320, 3240}, {1, 1, 3072, 2304}, {2, 2, 1600, 1200}, {4, 4, 640, 480}}},
        {{u"SX160", u"SX170", u"SX500"},
         {{0, 0, 4608, 3456}, {1, 1, 3264, 2448}, {2, 2, 1600, 1200}, {4, 4, 640, 480}}},
        {{u"SX510"},
         {{0, 0, 4000, 3000}, {1, 1, 2816, 2112}, {2, 2, 1600, 1200}, {4, 4, 640, 480},
          {5, 7, 1984, 1488}}},
    };
    // clang-format on
    size_t modelsSeen = 0;
    for (const auto& [names, sizes] : groups) {
        for (const std::u16string& name : names) {
            SCOPED_TRACE(Narrow(name));
            ++modelsSeen;
            Sizes actual;
            for (const PropertyValue& r : Model(name).Find(PROP_IMAGE_SIZE)->values) {
                actual.push_back({r.value, r.cameraValue, r.width, r.height});
            }
            EXPECT_EQ(actual, sizes);
        }
    }
    EXPECT_EQ(modelsSeen, kModels.size());
}

TEST(FindCameraConfig, FirstModelInTableOrderWhoseCodeOccurs) {
    EXPECT_EQ(FindCameraConfig(u"Canon PowerShot SX150 IS")->name, u"SX150");
    // A code inside a longer model number still matches.
    EXPECT_EQ(FindCameraConfig(u"PowerShot SX400 IS")->name, u"SX40");
    // Two codes: the one earlier in the table wins, wherever it stands in the string.
    EXPECT_EQ(FindCameraConfig(u"SX510 SX500")->name, u"SX500");
    EXPECT_EQ(FindCameraConfig(u"SX40 A810")->name, u"A810");
    EXPECT_EQ(FindCameraConfig(u""), nullptr);
    EXPECT_EQ(FindCameraConfig(u"Canon PowerShot sx150 IS"), nullptr);

    // The copying form leaves its target alone on a miss.
    CameraConfig target;
    target.name = u"untouched";
    EXPECT_FALSE(FindCameraConfig(u"SX 150", target));
    EXPECT_EQ(target.name, u"untouched");
    ASSERT_TRUE(FindCameraConfig(u"Canon PowerShot SX160 IS", target));
    EXPECT_EQ(target.name, u"SX160");
}

}  // namespace
}  // namespace orq
