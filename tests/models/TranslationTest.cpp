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

int32_t Raw(const char16_t* model, int32_t id, int32_t value) {
    int32_t raw = 0;
    EXPECT_TRUE(Model(model).ToCameraValue(id, value, raw)) << id << " " << value;
    return raw;
}

bool Reads(const char16_t* model, int32_t id, int32_t raw, int32_t& value) {
    return Model(model).ToSdkValue(id, raw, value);
}

TEST(TvTables, LengthEndsAndFormOfEveryModel) {
    struct Expected {
        const char16_t* model;
        size_t count;
        PropertyValue first, last;
    };
    const Expected expected[] = {
        {u"G15", 49, {150000, 65152}, {1, 1152}},   {u"SX130", 46, {150000, -352}, {4, 1088}},
        {u"SX150", 46, {150000, -352}, {4, 1088}},  {u"SX160", 47, {150000, -352}, {2, 1120}},
        {u"SX170", 48, {150000, 65152}, {2, 1120}}, {u"SX500", 48, {150000, 65152}, {2, 1120}},
        {u"SX40", 46, {150000, -384}, {4, 1056}},   {u"SX510", 45, {150000, 65152}, {6, 1024}},
    };
    for (const Expected& e : expected) {
        SCOPED_TRACE(std::string(e.model, e.model + std::u16string(e.model).size()));
        const std::vector<PropertyValue>& tv = Model(e.model).Find(PROP_TV)->values;
        ASSERT_EQ(tv.size(), e.count);
        EXPECT_EQ(tv.front().value, e.first.value);
        EXPECT_EQ(tv.front().cameraValue, e.first.cameraValue);
        EXPECT_EQ(tv.back().value, e.last.value);
        EXPECT_EQ(tv.back().cameraValue, e.last.cameraValue);
        // From the longest time to the shortest, 32 further on the camera at each record: where
        // a model drops 40000, the times on one side of it are shifted by a rung.
        for (size_t i = 1; i < tv.size(); ++i) {
            EXPECT_LT(tv[i].value, tv[i - 1].value);
            EXPECT_EQ(static_cast<int16_t>(tv[i].cameraValue) -
                          static_cast<int16_t>(tv[i - 1].cameraValue),
                      32)
                << tv[i].value;
        }
    }
}

TEST(TvTables, DeviationsFromTheLadder) {
    int32_t value = 0;
    // The ladder itself: 1" is 0 and 15" is -384 (unsigned form on G15, SX170, SX500, SX510).
    for (const char16_t* model : {u"G15", u"SX170", u"SX500", u"SX510"}) {
        EXPECT_EQ(Raw(model, PROP_TV, 10000), 0);
        EXPECT_EQ(Raw(model, PROP_TV, 40000), 65344);
        EXPECT_EQ(Raw(model, PROP_TV, 50000), 65312);
        EXPECT_EQ(Raw(model, PROP_TV, 32000), 65376);
    }
    // SX130, SX150, SX160: 40000 missing, the long times one rung short, signed form.
    for (const char16_t* model : {u"SX130", u"SX150", u"SX160"}) {
        EXPECT_FALSE(Model(model).Find(PROP_TV)->FromSdk(40000));
        EXPECT_EQ(Raw(model, PROP_TV, 50000), -192);
        EXPECT_EQ(Raw(model, PROP_TV, 60000), -224);
        EXPECT_EQ(Raw(model, PROP_TV, 32000), -160);
        EXPECT_EQ(Raw(model, PROP_TV, 10000), 0);
        EXPECT_TRUE(Reads(model, PROP_TV, -192, value));
        EXPECT_EQ(value, 50000);
        EXPECT_FALSE(Reads(model, PROP_TV, 65344, value));
    }
    // SX40: 40000 missing, 32000 and shorter one rung long, signed form.
    EXPECT_FALSE(Model(u"SX40").Find(PROP_TV)->FromSdk(40000));
    EXPECT_EQ(Raw(u"SX40", PROP_TV, 50000), -224);
    EXPECT_EQ(Raw(u"SX40", PROP_TV, 32000), -192);
    EXPECT_EQ(Raw(u"SX40", PROP_TV, 10000), -32);
    EXPECT_TRUE(Reads(u"SX40", PROP_TV, 0, value));
    EXPECT_EQ(value, 8000);
}

TEST(Negatives, EachTableKeepsItsOwnForm) {
    int32_t value = -1;
    EXPECT_EQ(Raw(u"SX150", PROP_EXPOSURE_COMPENSATION, 0), 65344);
    EXPECT_EQ(Raw(u"SX130", PROP_EXPOSURE_COMPENSATION, 0), -192);
    EXPECT_TRUE(Reads(u"SX150", PROP_EXPOSURE_COMPENSATION, 65344, value));
    EXPECT_EQ(value, 0);
    EXPECT_FALSE(Reads(u"SX150", PROP_EXPOSURE_COMPENSATION, -192, value));
    EXPECT_FALSE(Reads(u"SX130", PROP_EXPOSURE_COMPENSATION, 65344, value));

    // Flash compensation is signed on SX130 and SX150 only.
    for (const CameraConfig& model : CameraConfigTable()) {
        const PropertyEntry* flash = model.Find(PROP_FLASH_COMPENSATION);
        if (!flash) continue;
        const bool isSigned = model.name == u"SX130" || model.name == u"SX150";
        EXPECT_EQ(flash->FromSdk(167)->cameraValue, isSigned ? -32 : 65504);
        EXPECT_EQ(flash->FromSdk(200)->cameraValue, 0);
        EXPECT_EQ(flash->FromSdk(400)->cameraValue, 192);
        EXPECT_EQ(flash->values.size(), 13u);
    }
    // Exposure compensation never offers the three-stop values.
    for (const CameraConfig& model : CameraConfigTable()) {
        const PropertyEntry* exposure = model.Find(PROP_EXPOSURE_COMPENSATION);
        if (exposure) {
            EXPECT_EQ(exposure->FromSdk(500), nullptr);
        }
    }
    EXPECT_EQ(Model(u"G15").Find(PROP_EXPOSURE_COMPENSATION), nullptr);
}

TEST(G15WhiteBalance, BothCustomSlotsReadAsCustom1) {
    const std::vector<PropertyValue>& wb = Model(u"G15").Find(PROP_WB_MODE)->values;
    ASSERT_EQ(wb.size(), 10u);
    EXPECT_EQ(wb[6].value, 9);
    EXPECT_EQ(wb[6].cameraValue, 8);
    EXPECT_EQ(wb[7].value, 9);
    EXPECT_EQ(wb[7].cameraValue, 9);
    EXPECT_EQ(Raw(u"G15", PROP_WB_MODE, 9), 8);
    int32_t value = 0;
    EXPECT_TRUE(Reads(u"G15", PROP_WB_MODE, 9, value));
    EXPECT_EQ(value, 9);
    EXPECT_TRUE(Reads(u"G15", PROP_WB_MODE, 8, value));
    EXPECT_EQ(value, 9);
    EXPECT_EQ(Model(u"G15").Find(PROP_WB_MODE)->FromSdk(10), nullptr);
}

TEST(ValueTables, SingularSpellings) {
    int32_t value = 0;
    // Red eye is inverted on the camera; the colour numbers are crossed.
    EXPECT_EQ(Raw(u"A495", PROP_RED_EYE_MODE, 0), 1);
    EXPECT_EQ(Raw(u"SX160", PROP_MY_COLORS, 3), 4);
    EXPECT_EQ(Raw(u"SX160", PROP_MY_COLORS, 10), 8);
    EXPECT_EQ(Raw(u"SX160", PROP_MY_COLORS, 12), 14);
    EXPECT_EQ(Raw(u"SX510", PROP_CONTRAST, 0), 254);
    EXPECT_EQ(Raw(u"SX510", PROP_SKIN_TONE, 2), 0);
    // Only the A1400 has JPEG quality 3, on camera value 10.
    EXPECT_EQ(Raw(u"A1400", PROP_JPEG_QUALITY, 3), 10);
    for (const CameraConfig& model : CameraConfigTable()) {
        if (model.name != u"A1400") {
            EXPECT_FALSE(model.ToCameraValue(2, 3, value));
        }
    }
    // "3.4" is 352 on SX500/SX510 and 347 on SX130/SX150; 352 is "3.5" on SX160/SX170.
    EXPECT_EQ(Raw(u"SX500", PROP_AV, 34), 352);
    EXPECT_EQ(Raw(u"SX510", PROP_AV, 34), 352);
    EXPECT_EQ(Raw(u"SX130", PROP_AV, 34), 347);
    EXPECT_TRUE(Reads(u"SX170", PROP_AV, 352, value));
    EXPECT_EQ(value, 35);
    EXPECT_EQ(Raw(u"G15", PROP_AV, 18), 171);
    EXPECT_EQ(Raw(u"SX40", PROP_AV, 27), 276);
    // A800 has automatic ISO only; A4000, A800 and A810 a single focusing zone.
    EXPECT_EQ(Model(u"A800").Find(PROP_ISO_SPEED)->values.size(), 1u);
    for (const char16_t* model : {u"A4000", u"A800", u"A810"}) {
        EXPECT_EQ(Model(model).Find(PROP_FOCUSING_ZONE)->values.size(), 1u);
    }
    EXPECT_EQ(Model(u"G15").Find(PROP_ISO_SPEED)->values.size(), 24u);
    EXPECT_EQ(Raw(u"IXUS145", PROP_WB_MODE, 6), 8);
    EXPECT_EQ(Raw(u"A495", PROP_FOCUSING_ZONE, 3), 5);
    EXPECT_EQ(Raw(u"SX170", PROP_FOCUSING_ZONE, 5), 4);
    // Properties without a value table of their own answer by identity.
    EXPECT_EQ(Raw(u"SX150", PROP_FLASH_POWER, 3), 3);
    EXPECT_EQ(Raw(u"SX150", PROP_MANUAL_FOCUS_MODE, 1), 1);
    EXPECT_FALSE(Model(u"SX150").ToCameraValue(PROP_DIRECT_TRANSFER, 1, value));
}

}  // namespace
}  // namespace orq
