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
    return {{0, u"-2"},      {34, u"-1.66"},  {67, u"-1.33"},  {100, u"-1"},    {134, u"-0.66"},
            {167, u"-0.33"}, {200, u"0"},     {233, u"+0.33"}, {266, u"+0.66"}, {300, u"+1"},
            {333, u"+1.33"}, {366, u"+1.66"}, {400, u"+2"}};
}

std::vector<NamedValue> ExposureCompensationNames() {
    // 500 .. 505 widen the range to three stops; they stand outside the order of the others.
    std::vector<NamedValue> names = CompensationNames();
    names.insert(names.end(), {{500, u"-3"},
                               {501, u"-2.66"},
                               {502, u"-2.33"},
                               {503, u"+2.33"},
                               {504, u"+2.66"},
                               {505, u"+3"}});
    return names;
}

std::vector<NamedValue> ColorAdjustNames() {
    return {{0, u"-2"}, {1, u"-1"}, {2, u"0"}, {3, u"1"}, {4, u"2"}};
}

std::vector<NamedValue> OnOffNames() {
    return {{0, u"On"}, {1, u"Off"}};
}

// All rows in ascending id; every table below is built from these.
std::vector<PropertyRow> Rows() {
    return {
        {PROP_SHOOTING_MODE,
         u"Shooting Mode",
         true,
         {{0, u"Auto"},
          {1, u"Program"},
          {2, u"Manual"},
          {3, u"AV"},
          {4, u"TV"},
          {5, u"Easy"},
          {6, u"Movie"},
          {7, u"Discreet"},
          {8, u"LiveView"},
          {9, u"Portrait"},
          {10, u"FaceSelfTimer"},
          {11, u"LowLight"},
          {12, u"FishEyeEffect"},
          {13, u"MiniatureEffect"},
          {14, u"ToyCameraEffect"},
          {15, u"Monochrome"},
          {16, u"SuperVivid"},
          {17, u"PosterEffect"},
          {18, u"Snow"},
          {19, u"Fireworks"},
          {20, u"LongShutter"},
          {21, u"iFrameMovie"},
          {22, u"DigitalIS"},
          {23, u"Landscape"},
          {24, u"SmartShutter"},
          {25, u"Beach"},
          {26, u"Foliage"},
          {27, u"KidsAndPets"},
          {28, u"ColorAccent"},
          {29, u"ColorSwap"},
          {30, u"Sports"},
          {31, u"MovieDigest"},
          {32, u"HighSpeedBurstHQ"},
          {33, u"HandheldNightScene"},
          {34, u"StitchAssist"},
          {35, u"HighSpeedBurst"},
          {36, u"BlurReduction"},
          {37, u"MovieMiniatureEffect"},
          {38, u"MovieColorAccent"},
          {39, u"MovieColorSwap"},
          {40, u"Sunset"},
          {41, u"NightSnapshot"},
          {42, u"Indoor"},
          {43, u"SuperSlowMotionMovie"},
          {44, u"SmoothSkin"},
          {45, u"Underwater"},
          {46, u"HighDynamicRange"},
          {47, u"Nostalgic"},
          {48, u"SoftFocus"}}},
        {PROP_IMAGE_SIZE,
         u"Image Size",
         true,
         {{0, u"Large"},
          {1, u"Medium 1"},
          {2, u"Medium 2"},
          {3, u"Medium 3"},
          {4, u"Small"},
          {5, u"Medium"}}},
        {PROP_JPEG_QUALITY,
         u"JPEG Quality",
         true,
         {{0, u"Superfine"}, {1, u"Fine"}, {2, u"Normal"}, {3, u"Normal 2"}}},
        {PROP_METERING_MODE,
         u"Metering Mode",
         true,
         {{0, u"Evaluative"}, {1, u"Spot"}, {2, u"Center"}}},
        {PROP_WB_MODE,
         u"WB Mode",
         true,
         {{0, u"Auto"},
          {1, u"Day Light"},
          {2, u"Cloudy"},
          {3, u"Tungsten"},
          {4, u"Fluorescent"},
          {5, u"Fluorescent H"},
          {6, u"Custom"},
          {7, u"Flash"},
          {8, u"Underwater"},
          {9, u"Custom1"},
          {10, u"Custom2"}}},
        {PROP_FLASH_MODE, u"Flash Mode", true, {{0, u"Auto"}, {1, u"On"}, {2, u"Off"}}},
        {PROP_RED_EYE_MODE, u"Red Eye Mode", true, OnOffNames()},
        {PROP_ISO_SPEED,
         u"ISO Speed",
         true,
         {{0, u"Auto"},        {80, u"ISO 80"},     {100, u"ISO 100"},     {125, u"ISO 125"},
          {160, u"ISO 160"},   {200, u"ISO 200"},   {250, u"ISO 250"},     {320, u"ISO 320"},
          {400, u"ISO 400"},   {500, u"ISO 500"},   {640, u"ISO 640"},     {800, u"ISO 800"},
          {1000, u"ISO 1000"}, {1250, u"ISO 1250"}, {1600, u"ISO 1600"},   {2000, u"ISO 2000"},
          {2500, u"ISO 2500"}, {3200, u"ISO 3200"}, {4000, u"ISO 4000"},   {5000, u"ISO 5000"},
          {6400, u"ISO 6400"}, {8000, u"ISO 8000"}, {10000, u"ISO 10000"}, {12800, u"ISO 12800"}}},
        {PROP_AV,
         u"Av",
         true,
         {{18, u"1.8"},
          {20, u"2.0"},
          {22, u"2.2"},
          {25, u"2.5"},
          {27, u"2.7"},
          {28, u"2.8"},
          {32, u"3.2"},
          {34, u"3.4"},
          {35, u"3.5"},
          {40, u"4.0"},
          {45, u"4.5"},
          {50, u"5.0"},
          {56, u"5.6"},
          {63, u"6.3"},
          {71, u"7.1"},
          {80, u"8.0"}}},
        // Times of 0.3 s and longer are seconds with a double quote as the seconds mark.
        {PROP_TV,
         u"Tv",
         true,
         {{1, u"1/4000"},   {2, u"1/3200"},    {4, u"1/2500"},    {5, u"1/2000"},   {6, u"1/1600"},
          {8, u"1/1250"},   {10, u"1/1000"},   {12, u"1/800"},    {15, u"1/640"},   {20, u"1/500"},
          {25, u"1/400"},   {31, u"1/320"},    {40, u"1/250"},    {50, u"1/200"},   {62, u"1/160"},
          {80, u"1/125"},   {100, u"1/100"},   {125, u"1/80"},    {166, u"1/60"},   {200, u"1/50"},
          {250, u"1/40"},   {333, u"1/30"},    {400, u"1/25"},    {500, u"1/20"},   {666, u"1/15"},
          {769, u"1/13"},   {1000, u"1/10"},   {1250, u"1/8"},    {1666, u"1/6"},   {2000, u"1/5"},
          {2500, u"1/4"},   {3000, u"0\"3"},   {4000, u"0\"4"},   {5000, u"0\"5"},  {6000, u"0\"6"},
          {8000, u"0\"8"},  {10000, u"1\""},   {13000, u"1\"3"},  {16000, u"1\"6"}, {20000, u"2\""},
          {25000, u"2\"5"}, {32000, u"3\"2"},  {40000, u"4\""},   {50000, u"5\""},  {60000, u"6\""},
          {80000, u"8\""},  {100000, u"10\""}, {130000, u"13\""}, {150000, u"15\""}}},
        {PROP_EXPOSURE_COMPENSATION, u"Exposure Compensation", true, ExposureCompensationNames()},
        {PROP_FLASH_COMPENSATION, u"Flash Compensation", true, CompensationNames()},
        // Level 4 is external power.
        {PROP_BATTERY_LEVEL,
         u"Battery Level",
         false,
         {{0, u"1"}, {1, u"2"}, {2, u"3"}, {3, u"4"}, {4, u"DC"}}},
        {PROP_FOCUSING_ZONE,
         u"Focusing Zone",
         true,
         {{0, u"Auto"},
          {1, u"Normal"},
          {2, u"Macro"},
          {3, u"Super Macro"},
          {4, u"Infinity"},
          {5, u"Manual Focus"}}},
        {PROP_MY_COLORS,
         u"My Colors",
         true,
         {{0, u"Off"},
          {1, u"Vivid"},
          {2, u"Neutral"},
          {3, u"Sepia"},
          {4, u"BW"},
          {5, u"Positive Film"},
          {6, u"Lighter Skin Tone"},
          {7, u"Darker Skin Tone"},
          {8, u"Vivid Blue"},
          {9, u"Vivid Green"},
          {10, u"Vivid Red"},
          {11, u"Custom Color"},
          {12, u"ColorSwap Mode"},
          {13, u"ColorAccent Mode"}}},
        {PROP_CONTRAST, u"Contrast", true, ColorAdjustNames()},
        {PROP_SHARPNESS, u"Sharpness", true, ColorAdjustNames()},
        {PROP_SATURATION, u"Saturation", true, ColorAdjustNames()},
        {PROP_RED, u"Red", true, ColorAdjustNames()},
        {PROP_GREEN, u"Green", true, ColorAdjustNames()},
        {PROP_BLUE, u"Blue", true, ColorAdjustNames()},
        {PROP_SKIN_TONE, u"Skin Tone", true, ColorAdjustNames()},
        {PROP_FLASH_POWER,
         u"Flash Power",
         true,
         {{0, u"Auto"}, {1, u"Low"}, {2, u"Medium"}, {3, u"High"}}},
        {PROP_DIRECT_TRANSFER, u"Direct Transfer", true, OnOffNames()},
        {PROP_MANUAL_FOCUS_MODE, u"Manual Focus Mode", true, OnOffNames()},
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
