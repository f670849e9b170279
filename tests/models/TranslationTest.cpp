// Value records that decide how a raw camera value reads: the Tv ladder and its deviations, the
// two forms of negative numbers, and the tables where one value is spelled twice or crossed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "models/CameraConfig.h"

namespace orq {
namespace {

const CameraConfig& Model(const char16_t* name) {
    const CameraConfig* model = FindCameraConfig(name);
    EXPECT_NE(model, nullptr);
    return *model;
}

std::string Narrow(const char16_t* text) {
    const std::u16string wide(text);
    return std::string(wide.begin(), wide.end());
}

int32_t Raw(const char16_t* model, int32_t id, int32_t value) {
    int32_t raw = 0;
    EXPECT_TRUE(Model(model).ToCameraValue(id, value, raw)) << id << " " << value;
    return raw;
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
    const Expected expected[] = {
        {u"G15", 49, {150000, 65152}, {1, 1152}, true},
        {u"SX130", 46, {150000, -352}, {4, 1088}, false},
        {u"SX150", 46, {150000, -352}, {4, 1088}, false},
        {u"SX160", 47, {150000, -352}, {2, 1120}, false},
        {u"SX170", 48, {150000, 65152}, {2, 1120}, true},
        {u"SX500", 48, {150000, 65152}, {2, 1120}, true},
        {u"SX40", 46, {150000, -384}, {4, 1056}, false},
        {u"SX510", 45, {150000, 65152}, {6, 1024}, true},
    };
    for (const Expected& e : expected) {
        SCOPED_TRACE(Narrow(e.model));
        const PropertyEntry& tv = *Model(e.model).Find(PROP_TV);
        ASSERT_EQ(tv.values.size(), e.count);
        EXPECT_EQ(tv.values.front().value, e.first.value);
        EXPECT_EQ(tv.values.front().cameraValue, e.first.cameraValue);
        EXPECT_EQ(tv.values.back().value, e.last.value);
        EXPECT_EQ(tv.values.back().cameraValue, e.last.cameraValue);
        EXPECT_EQ(tv.FromSdk(40000) != nullptr, e.has40000);
        // From the longest time to the shortest, 32 further on the camera at each record: where
        // a model drops 40000, the times on one side of it are shifted by a rung.
        for (size_t i = 1; i < tv.values.size(); ++i) {
            EXPECT_LT(tv.values[i].value, tv.values[i - 1].value);
            EXPECT_EQ(static_cast<int16_t>(tv.values[i].cameraValue) -
                          static_cast<int16_t>(tv.values[i - 1].cameraValue),
                      32)
                << tv.values[i].value;
        }
    }
}

TEST(Negatives, EachTableKeepsItsOwnForm) {
    int32_t value = -1;
    EXPECT_EQ(Raw(u"SX150", PROP_EXPOSURE_COMPENSATION, 0), 65344);
    EXPECT_EQ(Raw(u"SX130", PROP_EXPOSURE_COMPENSATION, 0), -192);
    EXPECT_TRUE(Model(u"SX150").ToSdkValue(PROP_EXPOSURE_COMPENSATION, 65344, value));
    EXPECT_EQ(value, 0);
    EXPECT_FALSE(Model(u"SX150").ToSdkValue(PROP_EXPOSURE_COMPENSATION, -192, value));
    EXPECT_FALSE(Model(u"SX130").ToSdkValue(PROP_EXPOSURE_COMPENSATION, 65344, value));

    for (const CameraConfig& model : CameraConfigTable()) {
        SCOPED_TRACE(std::string(model.name.begin(), model.name.end()));
        // Exposure compensation never offers the three-stop values.
        if (const PropertyEntry* exposure = model.Find(PROP_EXPOSURE_COMPENSATION)) {
            EXPECT_EQ(exposure->FromSdk(500), nullptr);
        }
        // Flash compensation is signed on SX130 and SX150 only.
        const PropertyEntry* flash = model.Find(PROP_FLASH_COMPENSATION);
        if (!flash) continue;
        const bool isSigned = model.name == u"SX130" || model.name == u"SX150";
        EXPECT_EQ(flash->FromSdk(167)->cameraValue, isSigned ? -32 : 65504);
        EXPECT_EQ(flash->FromSdk(400)->cameraValue, 192);
        EXPECT_EQ(flash->values.size(), 13u);
    }
}

TEST(ValueTables, TheG15WritesTheFirstOfItsTwoCustomSlots) {
    const PropertyEntry& wb = *Model(u"G15").Find(PROP_WB_MODE);
    EXPECT_EQ(Raw(u"G15", PROP_WB_MODE, 9), 8);
    EXPECT_EQ(wb.FromCamera(8)->value, 9);
    EXPECT_EQ(wb.FromCamera(9)->value, 9);
    EXPECT_EQ(wb.FromSdk(10), nullptr);
}

TEST(ValueTables, SingularSpellings) {
    struct Case {
        const char16_t* model;
        int32_t id, value, raw;
        const char* what;
    } cases[] = {
        {u"A495", PROP_RED_EYE_MODE, 0, 1, "inverted on the camera"},
        {u"SX160", PROP_MY_COLORS, 10, 8, "crossed numbers"},
        {u"A1400", PROP_JPEG_QUALITY, 3, 10, "a value of one model only"},
        {u"SX500", PROP_AV, 34, 352, "\"3.4\" on the number of another model's \"3.5\""},
        {u"SX130", PROP_AV, 34, 347, "\"3.4\" on its own number"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Raw(c.model, c.id, c.value), c.raw) << Narrow(c.model) << ": " << c.what;
    }
    int32_t value = 0;
    EXPECT_TRUE(Model(u"SX170").ToSdkValue(PROP_AV, 352, value));
    EXPECT_EQ(value, 35);
    for (const CameraConfig& model : CameraConfigTable()) {
        EXPECT_EQ(model.ToCameraValue(PROP_JPEG_QUALITY, 3, value), model.name == u"A1400");
    }
    // The A800 has automatic ISO only.
    EXPECT_EQ(Model(u"A800").Find(PROP_ISO_SPEED)->values.size(), 1u);
}

}  // namespace
}  // namespace orq
