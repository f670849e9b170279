#include "models/PropertyNames.h"

#include <vector>

namespace orq {

namespace {

struct NamedValue {
    int32_t value;
    const char16_t* name;
};

struct PropertyRow {
    int32_t id;
    const char16_t* name;
    bool writable;
    std::vector<NamedValue> values;
};

std::vector<NamedValue> CompensationNames() {
    return {
        {ORQ_COMP_MINUS_2, u"-2"}, {ORQ_COMP_MINUS_1_66, u"-1.66"}, {ORQ_COMP_MINUS_1_33, u"-1.33"},
        {ORQ_COMP_MINUS_1, u"-1"}, {ORQ_COMP_MINUS_0_66, u"-0.66"}, {ORQ_COMP_MINUS_0_33, u"-0.33"},
        {ORQ_COMP_ZERO, u"0"},     {ORQ_COMP_PLUS_0_33, u"+0.33"},  {ORQ_COMP_PLUS_0_66, u"+0.66"},
        {ORQ_COMP_PLUS_1, u"+1"},  {ORQ_COMP_PLUS_1_33, u"+1.33"},  {ORQ_COMP_PLUS_1_66, u"+1.66"},
        {ORQ_COMP_PLUS_2, u"+2"}};
}

std::vector<NamedValue> ExposureCompensationNames() {
    // 500 .. 505 widen the range to three stops; they stand outside the order of the others.
    std::vector<NamedValue> names = CompensationNames();
    names.insert(names.end(), {{ORQ_COMP_MINUS_3, u"-3"},
                               {ORQ_COMP_MINUS_2_66, u"-2.66"},
                               {ORQ_COMP_MINUS_2_33, u"-2.33"},
                               {ORQ_COMP_PLUS_2_33, u"+2.33"},
                               {ORQ_COMP_PLUS_2_66, u"+2.66"},
                               {ORQ_COMP_PLUS_3, u"+3"}});
    return names;
}

std::vector<NamedValue> ColorAdjustNames() {
    return {{ORQ_ADJUST_MINUS_2, u"-2"},
            {ORQ_ADJUST_MINUS_1, u"-1"},
            {ORQ_ADJUST_ZERO, u"0"},
            {ORQ_ADJUST_PLUS_1, u"1"},
            {ORQ_ADJUST_PLUS_2, u"2"}};
}

std::vector<NamedValue> OnOffNames() {
    return {{ORQ_SWITCH_ON, u"On"}, {ORQ_SWITCH_OFF, u"Off"}};
}

// All rows in ascending id; every table below is built from these.
std::vector<PropertyRow> Rows() {
    return {
        {ORQ_PROP_SHOOTING_MODE,
         u"Shooting Mode",
         true,
         {{ORQ_SHOOTING_MODE_AUTO, u"Auto"},
          {ORQ_SHOOTING_MODE_PROGRAM, u"Program"},
          {ORQ_SHOOTING_MODE_MANUAL, u"Manual"},
          {ORQ_SHOOTING_MODE_AV, u"AV"},
          {ORQ_SHOOTING_MODE_TV, u"TV"},
          {ORQ_SHOOTING_MODE_EASY, u"Easy"},
          {ORQ_SHOOTING_MODE_MOVIE, u"Movie"},
          {ORQ_SHOOTING_MODE_DISCREET, u"Discreet"},
          {ORQ_SHOOTING_MODE_LIVE_VIEW, u"LiveView"},
          {ORQ_SHOOTING_MODE_PORTRAIT, u"Portrait"},
          {ORQ_SHOOTING_MODE_FACE_SELF_TIMER, u"FaceSelfTimer"},
          {ORQ_SHOOTING_MODE_LOW_LIGHT, u"LowLight"},
          {ORQ_SHOOTING_MODE_FISH_EYE_EFFECT, u"FishEyeEffect"},
          {ORQ_SHOOTING_MODE_MINIATURE_EFFECT, u"MiniatureEffect"},
          {ORQ_SHOOTING_MODE_TOY_CAMERA_EFFECT, u"ToyCameraEffect"},
          {ORQ_SHOOTING_MODE_MONOCHROME, u"Monochrome"},
          {ORQ_SHOOTING_MODE_SUPER_VIVID, u"SuperVivid"},
          {ORQ_SHOOTING_MODE_POSTER_EFFECT, u"PosterEffect"},
          {ORQ_SHOOTING_MODE_SNOW, u"Snow"},
          {ORQ_SHOOTING_MODE_FIREWORKS, u"Fireworks"},
          {ORQ_SHOOTING_MODE_LONG_SHUTTER, u"LongShutter"},
          {ORQ_SHOOTING_MODE_I_FRAME_MOVIE, u"iFrameMovie"},
          {ORQ_SHOOTING_MODE_DIGITAL_IS, u"DigitalIS"},
          {ORQ_SHOOTING_MODE_LANDSCAPE, u"Landscape"},
          {ORQ_SHOOTING_MODE_SMART_SHUTTER, u"SmartShutter"},
          {ORQ_SHOOTING_MODE_BEACH, u"Beach"},
          {ORQ_SHOOTING_MODE_FOLIAGE, u"Foliage"},
          {ORQ_SHOOTING_MODE_KIDS_AND_PETS, u"KidsAndPets"},
          {ORQ_SHOOTING_MODE_COLOR_ACCENT, u"ColorAccent"},
          {ORQ_SHOOTING_MODE_COLOR_SWAP, u"ColorSwap"},
          {ORQ_SHOOTING_MODE_SPORTS, u"Sports"},
          {ORQ_SHOOTING_MODE_MOVIE_DIGEST, u"MovieDigest"},
          {ORQ_SHOOTING_MODE_HIGH_SPEED_BURST_HQ, u"HighSpeedBurstHQ"},
          {ORQ_SHOOTING_MODE_HANDHELD_NIGHT_SCENE, u"HandheldNightScene"},
          {ORQ_SHOOTING_MODE_STITCH_ASSIST, u"StitchAssist"},
          {ORQ_SHOOTING_MODE_HIGH_SPEED_BURST, u"HighSpeedBurst"},
          {ORQ_SHOOTING_MODE_BLUR_REDUCTION, u"BlurReduction"},
          {ORQ_SHOOTING_MODE_MOVIE_MINIATURE_EFFECT, u"MovieMiniatureEffect"},
          {ORQ_SHOOTING_MODE_MOVIE_COLOR_ACCENT, u"MovieColorAccent"},
          {ORQ_SHOOTING_MODE_MOVIE_COLOR_SWAP, u"MovieColorSwap"},
          {ORQ_SHOOTING_MODE_SUNSET, u"Sunset"},
          {ORQ_SHOOTING_MODE_NIGHT_SNAPSHOT, u"NightSnapshot"},
          {ORQ_SHOOTING_MODE_INDOOR, u"Indoor"},
          {ORQ_SHOOTING_MODE_SUPER_SLOW_MOTION_MOVIE, u"SuperSlowMotionMovie"},
          {ORQ_SHOOTING_MODE_SMOOTH_SKIN, u"SmoothSkin"},
          {ORQ_SHOOTING_MODE_UNDERWATER, u"Underwater"},
          {ORQ_SHOOTING_MODE_HIGH_DYNAMIC_RANGE, u"HighDynamicRange"},
          {ORQ_SHOOTING_MODE_NOSTALGIC, u"Nostalgic"},
          {ORQ_SHOOTING_MODE_SOFT_FOCUS, u"SoftFocus"}}},
        {ORQ_PROP_IMAGE_SIZE,
         u"Image Size",
         true,
         {{ORQ_IMAGE_SIZE_LARGE, u"Large"},
          {ORQ_IMAGE_SIZE_MEDIUM_1, u"Medium 1"},
          {ORQ_IMAGE_SIZE_MEDIUM_2, u"Medium 2"},
          {ORQ_IMAGE_SIZE_MEDIUM_3, u"Medium 3"},
          {ORQ_IMAGE_SIZE_SMALL, u"Small"},
          {ORQ_IMAGE_SIZE_MEDIUM, u"Medium"}}},
        {ORQ_PROP_JPEG_QUALITY,
         u"JPEG Quality",
         true,
         {{ORQ_JPEG_QUALITY_SUPERFINE, u"Superfine"},
          {ORQ_JPEG_QUALITY_FINE, u"Fine"},
          {ORQ_JPEG_QUALITY_NORMAL, u"Normal"},
          {ORQ_JPEG_QUALITY_NORMAL_2, u"Normal 2"}}},
        {ORQ_PROP_METERING_MODE,
         u"Metering Mode",
         true,
         {{ORQ_METERING_EVALUATIVE, u"Evaluative"},
          {ORQ_METERING_SPOT, u"Spot"},
          {ORQ_METERING_CENTER, u"Center"}}},
        {ORQ_PROP_WB_MODE,
         u"WB Mode",
         true,
         {{ORQ_WB_AUTO, u"Auto"},
          {ORQ_WB_DAY_LIGHT, u"Day Light"},
          {ORQ_WB_CLOUDY, u"Cloudy"},
          {ORQ_WB_TUNGSTEN, u"Tungsten"},
          {ORQ_WB_FLUORESCENT, u"Fluorescent"},
          {ORQ_WB_FLUORESCENT_H, u"Fluorescent H"},
          {ORQ_WB_CUSTOM, u"Custom"},
          {ORQ_WB_FLASH, u"Flash"},
          {ORQ_WB_UNDERWATER, u"Underwater"},
          {ORQ_WB_CUSTOM1, u"Custom1"},
          {ORQ_WB_CUSTOM2, u"Custom2"}}},
        {ORQ_PROP_FLASH_MODE,
         u"Flash Mode",
         true,
         {{ORQ_FLASH_AUTO, u"Auto"}, {ORQ_FLASH_ON, u"On"}, {ORQ_FLASH_OFF, u"Off"}}},
        {ORQ_PROP_RED_EYE_MODE, u"Red Eye Mode", true, OnOffNames()},
        {ORQ_PROP_ISO_SPEED,
         u"ISO Speed",
         true,
         {{ORQ_ISO_AUTO, u"Auto"},       {ORQ_ISO_80, u"ISO 80"},
          {ORQ_ISO_100, u"ISO 100"},     {ORQ_ISO_125, u"ISO 125"},
          {ORQ_ISO_160, u"ISO 160"},     {ORQ_ISO_200, u"ISO 200"},
          {ORQ_ISO_250, u"ISO 250"},     {ORQ_ISO_320, u"ISO 320"},
          {ORQ_ISO_400, u"ISO 400"},     {ORQ_ISO_500, u"ISO 500"},
          {ORQ_ISO_640, u"ISO 640"},     {ORQ_ISO_800, u"ISO 800"},
          {ORQ_ISO_1000, u"ISO 1000"},   {ORQ_ISO_1250, u"ISO 1250"},
          {ORQ_ISO_1600, u"ISO 1600"},   {ORQ_ISO_2000, u"ISO 2000"},
          {ORQ_ISO_2500, u"ISO 2500"},   {ORQ_ISO_3200, u"ISO 3200"},
          {ORQ_ISO_4000, u"ISO 4000"},   {ORQ_ISO_5000, u"ISO 5000"},
          {ORQ_ISO_6400, u"ISO 6400"},   {ORQ_ISO_8000, u"ISO 8000"},
          {ORQ_ISO_10000, u"ISO 10000"}, {ORQ_ISO_12800, u"ISO 12800"}}},
        {ORQ_PROP_AV,
         u"Av",
         true,
         {{ORQ_AV_F1_8, u"1.8"},
          {ORQ_AV_F2_0, u"2.0"},
          {ORQ_AV_F2_2, u"2.2"},
          {ORQ_AV_F2_5, u"2.5"},
          {ORQ_AV_F2_7, u"2.7"},
          {ORQ_AV_F2_8, u"2.8"},
          {ORQ_AV_F3_2, u"3.2"},
          {ORQ_AV_F3_4, u"3.4"},
          {ORQ_AV_F3_5, u"3.5"},
          {ORQ_AV_F4_0, u"4.0"},
          {ORQ_AV_F4_5, u"4.5"},
          {ORQ_AV_F5_0, u"5.0"},
          {ORQ_AV_F5_6, u"5.6"},
          {ORQ_AV_F6_3, u"6.3"},
          {ORQ_AV_F7_1, u"7.1"},
          {ORQ_AV_F8_0, u"8.0"}}},
        // Times of 0.3 s and longer are seconds with a double quote as the seconds mark.
        {ORQ_PROP_TV,
         u"Tv",
         true,
         {{ORQ_TV_1_4000, u"1/4000"}, {ORQ_TV_1_3200, u"1/3200"}, {ORQ_TV_1_2500, u"1/2500"},
          {ORQ_TV_1_2000, u"1/2000"}, {ORQ_TV_1_1600, u"1/1600"}, {ORQ_TV_1_1250, u"1/1250"},
          {ORQ_TV_1_1000, u"1/1000"}, {ORQ_TV_1_800, u"1/800"},   {ORQ_TV_1_640, u"1/640"},
          {ORQ_TV_1_500, u"1/500"},   {ORQ_TV_1_400, u"1/400"},   {ORQ_TV_1_320, u"1/320"},
          {ORQ_TV_1_250, u"1/250"},   {ORQ_TV_1_200, u"1/200"},   {ORQ_TV_1_160, u"1/160"},
          {ORQ_TV_1_125, u"1/125"},   {ORQ_TV_1_100, u"1/100"},   {ORQ_TV_1_80, u"1/80"},
          {ORQ_TV_1_60, u"1/60"},     {ORQ_TV_1_50, u"1/50"},     {ORQ_TV_1_40, u"1/40"},
          {ORQ_TV_1_30, u"1/30"},     {ORQ_TV_1_25, u"1/25"},     {ORQ_TV_1_20, u"1/20"},
          {ORQ_TV_1_15, u"1/15"},     {ORQ_TV_1_13, u"1/13"},     {ORQ_TV_1_10, u"1/10"},
          {ORQ_TV_1_8, u"1/8"},       {ORQ_TV_1_6, u"1/6"},       {ORQ_TV_1_5, u"1/5"},
          {ORQ_TV_1_4, u"1/4"},       {ORQ_TV_0_3S, u"0\"3"},     {ORQ_TV_0_4S, u"0\"4"},
          {ORQ_TV_0_5S, u"0\"5"},     {ORQ_TV_0_6S, u"0\"6"},     {ORQ_TV_0_8S, u"0\"8"},
          {ORQ_TV_1S, u"1\""},        {ORQ_TV_1_3S, u"1\"3"},     {ORQ_TV_1_6S, u"1\"6"},
          {ORQ_TV_2S, u"2\""},        {ORQ_TV_2_5S, u"2\"5"},     {ORQ_TV_3_2S, u"3\"2"},
          {ORQ_TV_4S, u"4\""},        {ORQ_TV_5S, u"5\""},        {ORQ_TV_6S, u"6\""},
          {ORQ_TV_8S, u"8\""},        {ORQ_TV_10S, u"10\""},      {ORQ_TV_13S, u"13\""},
          {ORQ_TV_15S, u"15\""}}},
        {ORQ_PROP_EXPOSURE_COMPENSATION, u"Exposure Compensation", true,
         ExposureCompensationNames()},
        {ORQ_PROP_FLASH_COMPENSATION, u"Flash Compensation", true, CompensationNames()},
        // Level 4 is external power.
        {ORQ_PROP_BATTERY_LEVEL,
         u"Battery Level",
         false,
         {{ORQ_BATTERY_1, u"1"},
          {ORQ_BATTERY_2, u"2"},
          {ORQ_BATTERY_3, u"3"},
          {ORQ_BATTERY_4, u"4"},
          {ORQ_BATTERY_DC, u"DC"}}},
        {ORQ_PROP_FOCUSING_ZONE,
         u"Focusing Zone",
         true,
         {{ORQ_FOCUS_ZONE_AUTO, u"Auto"},
          {ORQ_FOCUS_ZONE_NORMAL, u"Normal"},
          {ORQ_FOCUS_ZONE_MACRO, u"Macro"},
          {ORQ_FOCUS_ZONE_SUPER_MACRO, u"Super Macro"},
          {ORQ_FOCUS_ZONE_INFINITY, u"Infinity"},
          {ORQ_FOCUS_ZONE_MANUAL_FOCUS, u"Manual Focus"}}},
        {ORQ_PROP_MY_COLORS,
         u"My Colors",
         true,
         {{ORQ_MY_COLORS_OFF, u"Off"},
          {ORQ_MY_COLORS_VIVID, u"Vivid"},
          {ORQ_MY_COLORS_NEUTRAL, u"Neutral"},
          {ORQ_MY_COLORS_SEPIA, u"Sepia"},
          {ORQ_MY_COLORS_BW, u"BW"},
          {ORQ_MY_COLORS_POSITIVE_FILM, u"Positive Film"},
          {ORQ_MY_COLORS_LIGHTER_SKIN_TONE, u"Lighter Skin Tone"},
          {ORQ_MY_COLORS_DARKER_SKIN_TONE, u"Darker Skin Tone"},
          {ORQ_MY_COLORS_VIVID_BLUE, u"Vivid Blue"},
          {ORQ_MY_COLORS_VIVID_GREEN, u"Vivid Green"},
          {ORQ_MY_COLORS_VIVID_RED, u"Vivid Red"},
          {ORQ_MY_COLORS_CUSTOM_COLOR, u"Custom Color"},
          {ORQ_MY_COLORS_COLOR_SWAP_MODE, u"ColorSwap Mode"},
          {ORQ_MY_COLORS_COLOR_ACCENT_MODE, u"ColorAccent Mode"}}},
        {ORQ_PROP_CONTRAST, u"Contrast", true, ColorAdjustNames()},
        {ORQ_PROP_SHARPNESS, u"Sharpness", true, ColorAdjustNames()},
        {ORQ_PROP_SATURATION, u"Saturation", true, ColorAdjustNames()},
        {ORQ_PROP_RED, u"Red", true, ColorAdjustNames()},
        {ORQ_PROP_GREEN, u"Green", true, ColorAdjustNames()},
        {ORQ_PROP_BLUE, u"Blue", true, ColorAdjustNames()},
        {ORQ_PROP_SKIN_TONE, u"Skin Tone", true, ColorAdjustNames()},
        {ORQ_PROP_FLASH_POWER,
         u"Flash Power",
         true,
         {{ORQ_FLASH_POWER_AUTO, u"Auto"},
          {ORQ_FLASH_POWER_LOW, u"Low"},
          {ORQ_FLASH_POWER_MEDIUM, u"Medium"},
          {ORQ_FLASH_POWER_HIGH, u"High"}}},
        {ORQ_PROP_DIRECT_TRANSFER, u"Direct Transfer", true, OnOffNames()},
        {ORQ_PROP_MANUAL_FOCUS_MODE, u"Manual Focus Mode", true, OnOffNames()},
    };
}

struct NameTables {
    std::map<int32_t, const char16_t*> names;
    std::map<int32_t, bool> writable;
    std::map<std::pair<int32_t, int32_t>, const char16_t*> valueNames;
    std::map<std::pair<int32_t, std::u16string>, int32_t> valueByName;
};

const NameTables& Tables() {
    static const NameTables tables = [] {
        NameTables built;
        for (const PropertyRow& row : Rows()) {
            built.names[row.id] = row.name;
            built.writable[row.id] = row.writable;
            for (const NamedValue& named : row.values) {
                built.valueNames[{row.id, named.value}] = named.name;
                built.valueByName[{row.id, named.name}] = named.value;
            }
        }
        return built;
    }();
    return tables;
}

// Built while the library loads, so the exports never race to build them.
[[maybe_unused]] const bool tablesBuiltAtLoad = !Tables().names.empty();

OrqChar* ToOrqText(const char16_t* text) {
    static_assert(sizeof(OrqChar) == sizeof(char16_t), "OrqChar is a 16-bit unit");
    // The caller gets a non-const pointer by the C interface's signature; it must not write.
    return reinterpret_cast<OrqChar*>(const_cast<char16_t*>(text));
}

}  // namespace

const std::map<int32_t, const char16_t*>& PropertyNames() {
    return Tables().names;
}

const std::map<int32_t, bool>& PropertyWritable() {
    return Tables().writable;
}

const std::map<std::pair<int32_t, int32_t>, const char16_t*>& PropertyValueNames() {
    return Tables().valueNames;
}

const std::map<std::pair<int32_t, std::u16string>, int32_t>& PropertyValueByName() {
    return Tables().valueByName;
}

bool IsPropertyWritable(int32_t propertyId) {
    auto it = Tables().writable.find(propertyId);
    return it != Tables().writable.end() && it->second;
}

OrqResult GetPropertyName(int propertyId, OrqChar** name) {
    auto it = Tables().names.find(propertyId);
    if (it == Tables().names.end() || !name) return ORQ_ERROR;
    *name = ToOrqText(it->second);
    return ORQ_OK;
}

OrqResult GetPropertyValName(int propertyId, int value, OrqChar** name) {
    auto it = Tables().valueNames.find({propertyId, value});
    if (it == Tables().valueNames.end() || !name) return ORQ_ERROR;
    *name = ToOrqText(it->second);
    return ORQ_OK;
}

}  // namespace orq
