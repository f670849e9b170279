// The profile table: every record as checked against the model tables it was transcribed from,
// the invariants every profile keeps, singular spellings, and finding a model by its code.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
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

// FNV-1a over every field of a model's profile, focus table included, in a fixed order.
uint64_t Digest(const CameraConfig& model) {
    uint64_t hash = 14695981039346656037ull;
    const auto add = [&](int64_t value) {
        for (int i = 0; i < 8; ++i) hash = (hash ^ uint8_t(value >> (8 * i))) * 1099511628211ull;
    };
    for (char16_t c : model.name) add(c);
    add(model.maxZoom);
    add(model.videoSupported);
    for (int32_t constraint : model.constraints) add(constraint);
    for (const auto& [id, entry] : model.properties) {
        for (int64_t field : {int64_t(id), int64_t(entry.propCase), int64_t(entry.kind),
                              int64_t(entry.subCase1), int64_t(entry.subCase2)})
            add(field);
        for (const PropertyValue& r : entry.values) {
            for (int64_t field : {r.value, r.cameraValue, int32_t(r.hasSize), r.width, r.height})
                add(field);
        }
        add(-1);
    }
    for (const std::vector<int32_t>& list : model.focusTable) {
        add(int64_t(list.size()));
        for (int32_t stop : list) add(stop);
    }
    return hash;
}

// Every record of every model as it was checked against the model tables it was transcribed
// from; a change to any value changes its model's digest.
TEST(ProfileTable, EveryModelInTableOrderHoldsItsCheckedRecords) {
    // clang-format off
    const std::pair<const char16_t*, uint64_t> expected[] = {
        {u"A1400", 0xf934dcb3e7eac09cull},
        {u"A2200", 0x90c247879a6407d1ull},
        {u"A4000", 0x1cc0274177de609full},
        {u"A495", 0x6160303964fcd053ull},
        {u"A800", 0xc884372529f51d7bull},
        {u"A810", 0x5a39a4179b8bd558ull},
        {u"G15", 0x71db75e87e404affull},
        {u"IXUS145", 0x63a7c36da861e175ull},
        {u"SX130", 0x1c21876b9da69233ull},
        {u"SX150", 0x1cdcb7715323ad86ull},
        {u"SX160", 0xf26d982adab7f20full},
        {u"SX170", 0xca3b217a94ff4e3cull},
        {u"SX40", 0x9d769bd82445cc07ull},
        {u"SX500", 0x53d86cf5103e4f56ull},
        {u"SX510", 0xfa4eb54f6428c5faull},
    };
    // clang-format on
    const std::vector<CameraConfig>& table = CameraConfigTable();
    ASSERT_EQ(table.size(), std::size(expected));
    for (size_t i = 0; i < table.size(); ++i) {
        EXPECT_EQ(table[i].name, expected[i].first);
        EXPECT_EQ(Digest(table[i]), expected[i].second)
            << Narrow(table[i].name) << ": 0x" << std::hex << Digest(table[i]);
    }
}

// What every entry keeps whatever its model: names for ids and values, one reading per raw
// value, manual focus exactly with a focus table, focus stops strictly ascending.
TEST(ProfileTable, InvariantsOfEveryEntry) {
    for (const CameraConfig& model : CameraConfigTable()) {
        EXPECT_EQ(model.Has(ORQ_PROP_MANUAL_FOCUS_MODE), !model.focusTable.empty());
        for (const auto& [id, entry] : model.properties) {
            SCOPED_TRACE(Narrow(model.name) + " id " + std::to_string(id));
            EXPECT_NE(PropertyNames().count(id), 0u);
            std::set<int32_t> values, cameraValues;
            for (const PropertyValue& record : entry.values) {
                EXPECT_NE(PropertyValueNames().count({id, record.value}), 0u) << record.value;
                values.insert(record.value);
                cameraValues.insert(record.cameraValue);
            }
            // G15's white balance is the one value listed twice.
            EXPECT_EQ(cameraValues.size(), entry.values.size());
            const bool g15Custom = model.name == u"G15" && id == ORQ_PROP_WB_MODE;
            EXPECT_EQ(values.size() + (g15Custom ? 1 : 0), entry.values.size());
        }
        for (const std::vector<int32_t>& list : model.focusTable) {
            EXPECT_FALSE(list.empty());
            EXPECT_TRUE(std::adjacent_find(list.begin(), list.end(),
                                           std::greater_equal<int32_t>()) == list.end());
        }
        // The lens: wide at step 0, tele at the longest, longer at every step between, steps
        // outside the range held at its ends; the 35 mm equivalent follows the factor.
        SCOPED_TRACE(Narrow(model.name) + " lens");
        EXPECT_EQ(model.FocalHundredths(-5), std::lround(model.lens.wideMm * 100));
        EXPECT_EQ(model.FocalHundredths(model.maxZoom + 9), std::lround(model.lens.teleMm * 100));
        for (int32_t step = 1; step <= model.maxZoom; ++step)
            EXPECT_GT(model.FocalHundredths(step), model.FocalHundredths(step - 1)) << step;
        EXPECT_EQ(model.Focal35mm(model.maxZoom), std::lround(model.FocalHundredths(model.maxZoom) /
                                                              100.0 * model.lens.factor35mm));
        EXPECT_GT(model.lens.factor35mm, 1.0);
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
