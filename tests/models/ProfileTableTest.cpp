// The profile table against the model tables it was transcribed from: the summary, the property
// cases, the kinds and sub-cases, and the invariants every profile keeps.
#include <gtest/gtest.h>

#include <climits>
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
        size_t properties;
        size_t focusLists;
    };
    const std::vector<Summary> expected = {
        {u"A1400", 63, {0}, false, 12, 0},
        {u"A2200", 6, {0, 3}, false, 16, 0},
        {u"A4000", 126, {0}, false, 12, 0},
        {u"A495", 6, {0}, false, 12, 0},
        {u"A800", 6, {0}, false, 12, 0},
        {u"A810", 63, {0}, true, 13, 0},
        {u"G15", 120, {0, 1, 2, 3}, false, 22, 0},
        {u"IXUS145", 100, {0}, false, 13, 0},
        {u"SX130", 125, {0, 1, 2}, false, 15, 0},
        {u"SX150", 125, {0, 1, 2, 3}, false, 24, 126},
        {u"SX160", 125, {0, 1, 2, 3}, false, 25, 126},
        {u"SX170", 125, {0, 1, 2, 3}, false, 25, 126},
        {u"SX40", 200, {0, 1, 2}, false, 15, 0},
        {u"SX500", 125, {0, 1, 2, 3}, false, 23, 0},
        {u"SX510", 126, {0, 1, 2, 3}, false, 23, 0},
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
        EXPECT_EQ(table[i].focusTable.size(), expected[i].focusLists);
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
        {12, {X, X, X, X, X, X, X, X, X, X, X, X, X, X, X}},
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
        {26, {X, X, X, X, X, X, X, X, X, X, X, X, X, X, X}},
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

TEST(ProfileTable, KindsAndSubCases) {
    struct Special {
        int32_t id;
        std::vector<std::u16string> models;
        PropertyKind kind;
        int32_t subCase1;
        int32_t subCase2;
    };
    const std::vector<Special> specials = {
        {0, kModels, PropertyKind::CaptureMode, 0, 0},
        {6, {u"A1400", u"IXUS145", u"SX170", u"SX510"}, PropertyKind::SubProperty, 216, 0},
        {6,
         {u"A2200", u"A4000", u"A800", u"G15", u"SX130", u"SX150", u"SX160", u"SX40", u"SX500"},
         PropertyKind::SubProperty,
         217,
         0},
        {6, {u"A495"}, PropertyKind::SubProperty, 215, 0},
        {6, {u"A810"}, PropertyKind::SubProperty2, 217, 5},
        {10, {u"A495"}, PropertyKind::SubProperty, 209, 0},
        {10, {u"A800", u"SX150", u"SX160", u"SX40", u"SX500"}, PropertyKind::SubProperty, 211, 0},
        {10, {u"IXUS145", u"SX170", u"SX510"}, PropertyKind::SubProperty, 210, 0},
        {10, {u"SX130"}, PropertyKind::Plain, 0, 0},
        {23, kModels, PropertyKind::FlashPower, 121, 141},
        {25, {u"SX150", u"SX160", u"SX170"}, PropertyKind::ManualFocus, 0, 0},
    };
    std::set<std::pair<int32_t, std::u16string>> covered;
    for (const Special& special : specials) {
        for (const std::u16string& name : special.models) {
            SCOPED_TRACE(Narrow(name) + " id " + std::to_string(special.id));
            const PropertyEntry* entry = Model(name).Find(special.id);
            ASSERT_NE(entry, nullptr);
            EXPECT_EQ(entry->kind, special.kind);
            EXPECT_EQ(entry->subCase1, special.subCase1);
            EXPECT_EQ(entry->subCase2, special.subCase2);
            covered.insert({special.id, name});
        }
    }
    // Everything not listed above is Plain with no sub-case.
    for (const CameraConfig& model : CameraConfigTable()) {
        for (const auto& [id, entry] : model.properties) {
            if (covered.count({id, model.name})) continue;
            SCOPED_TRACE(Narrow(model.name) + " id " + std::to_string(id));
            EXPECT_EQ(entry.kind, PropertyKind::Plain);
            EXPECT_EQ(entry.subCase1, 0);
            EXPECT_EQ(entry.subCase2, 0);
        }
    }
}

TEST(ProfileTable, InvariantsOfEveryProfile) {
    for (const CameraConfig& model : CameraConfigTable()) {
        SCOPED_TRACE(Narrow(model.name));
        for (int32_t id : {0, 1, 2, 3, 4, 5, 6, 7, 13, 14, 23}) EXPECT_TRUE(model.Has(id)) << id;
        EXPECT_FALSE(model.Has(12));
        EXPECT_EQ(model.Has(PROP_MANUAL_FOCUS_MODE), !model.focusTable.empty());
        if (!model.focusTable.empty()) {
            EXPECT_EQ(model.focusTable.size(), static_cast<size_t>(model.maxZoom) + 1);
        }
        for (const auto& [id, entry] : model.properties) {
            SCOPED_TRACE(id);
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
    }
}

TEST(ProfileTable, ShootingModeCountsAndCommonModes) {
    const size_t counts[] = {16, 25, 20, 16, 16, 22, 29, 16, 25, 26, 20, 19, 29, 20, 22};
    for (size_t m = 0; m < kModels.size(); ++m) {
        SCOPED_TRACE(Narrow(kModels[m]));
        const CameraConfig& model = Model(kModels[m]);
        EXPECT_EQ(model.Find(PROP_SHOOTING_MODE)->values.size(), counts[m]);
        // Auto, Program, Manual, AV and TV are the same numbers wherever they exist.
        const int32_t common[] = {32768, 32772, 32769, 32770, 32771};
        for (int32_t value = 0; value < 5; ++value) {
            int32_t raw = 0;
            if (model.ToCameraValue(PROP_SHOOTING_MODE, value, raw)) {
                EXPECT_EQ(raw, common[value]);
            }
        }
    }
}

TEST(ProfileTable, ImageSizes) {
    struct Size {
        int32_t value, cameraValue, width, height;
    };
    const std::vector<Size> large5 = {{0, 0, 4608, 3456},
                                      {1, 1, 3264, 2448},
                                      {2, 2, 1600, 1200},
                                      {4, 4, 640, 480},
                                      {5, 7, 2304, 1728}};
    const std::vector<Size> a2200 = {
        {0, 0, 3648, 2736}, {1, 1, 2816, 2112}, {2, 2, 1600, 1200}, {4, 4, 640, 480}};
    const std::vector<Size> g15 = {
        {0, 0, 4000, 3000}, {1, 1, 2816, 2112}, {2, 2, 1600, 1200}, {4, 4, 640, 480}};
    const std::vector<Size> sx160 = {
        {0, 0, 4608, 3456}, {1, 1, 3264, 2448}, {2, 2, 1600, 1200}, {4, 4, 640, 480}};
    const std::vector<std::pair<std::vector<std::u16string>, std::vector<Size>>> groups = {
        {{u"A1400", u"A4000", u"A810"}, large5},
        {{u"A2200", u"A800"}, a2200},
        {{u"A495"},
         {{0, 0, 3648, 2736},
          {1, 1, 2816, 2112},
          {2, 2, 2272, 1704},
          {3, 3, 1600, 1200},
          {4, 4, 640, 480}}},
        {{u"G15", u"SX130", u"SX40"}, g15},
        {{u"IXUS145"},
         {{0, 0, 4608, 3456}, {1, 1, 3264, 2448}, {2, 2, 2048, 1536}, {4, 4, 640, 480}}},
        {{u"SX150"},
         {{0, 0, 4320, 3240}, {1, 1, 3072, 2304}, {2, 2, 1600, 1200}, {4, 4, 640, 480}}},
        {{u"SX160", u"SX170", u"SX500"}, sx160},
        {{u"SX510"},
         {{0, 0, 4000, 3000},
          {1, 1, 2816, 2112},
          {2, 2, 1600, 1200},
          {4, 4, 640, 480},
          {5, 7, 1984, 1488}}},
    };
    size_t modelsSeen = 0;
    for (const auto& [names, sizes] : groups) {
        for (const std::u16string& name : names) {
            SCOPED_TRACE(Narrow(name));
            ++modelsSeen;
            const std::vector<PropertyValue>& records = Model(name).Find(PROP_IMAGE_SIZE)->values;
            ASSERT_EQ(records.size(), sizes.size());
            for (size_t i = 0; i < sizes.size(); ++i) {
                EXPECT_EQ(records[i].value, sizes[i].value);
                EXPECT_EQ(records[i].cameraValue, sizes[i].cameraValue);
                EXPECT_EQ(records[i].width, sizes[i].width);
                EXPECT_EQ(records[i].height, sizes[i].height);
            }
        }
    }
    EXPECT_EQ(modelsSeen, kModels.size());
}

TEST(FindCameraConfig, SubstringOfTheProductStringInTableOrder) {
    const CameraConfig* found = FindCameraConfig(u"Canon PowerShot SX150 IS");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->name, u"SX150");
    EXPECT_EQ(FindCameraConfig(u"IXUS145")->name, u"IXUS145");
    // A code inside a longer model number still matches.
    EXPECT_EQ(FindCameraConfig(u"PowerShot SX400 IS")->name, u"SX40");
    // Two codes: the one earlier in the table wins, wherever it stands in the string.
    EXPECT_EQ(FindCameraConfig(u"SX510 SX500")->name, u"SX500");
    EXPECT_EQ(FindCameraConfig(u"SX40 A810")->name, u"A810");

    EXPECT_EQ(FindCameraConfig(u""), nullptr);
    EXPECT_EQ(FindCameraConfig(u"Canon PowerShot sx150 IS"), nullptr);
    EXPECT_EQ(FindCameraConfig(u"SX 150"), nullptr);
}

TEST(FindCameraConfig, CopiesTheProfileOnlyOnSuccess) {
    CameraConfig target;
    target.name = u"untouched";
    EXPECT_FALSE(FindCameraConfig(u"Some other camera", target));
    EXPECT_EQ(target.name, u"untouched");

    ASSERT_TRUE(FindCameraConfig(u"Canon PowerShot SX160 IS", target));
    EXPECT_EQ(target.name, u"SX160");
    EXPECT_EQ(target.properties.size(), 25u);
    EXPECT_EQ(target.focusTable.size(), 126u);
    // The copy is the camera's own: changing it leaves the table alone.
    target.properties.clear();
    target.focusTable.clear();
    EXPECT_EQ(FindCameraConfig(u"SX160")->properties.size(), 25u);
    EXPECT_EQ(FindCameraConfig(u"SX160")->focusTable.size(), 126u);
}

}  // namespace
}  // namespace orq
