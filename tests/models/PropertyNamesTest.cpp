// The name tables and the two name lookups behind the exports.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "models/PropertyNames.h"

namespace orq {
namespace {

std::u16string Text(const OrqChar* text) {
    return reinterpret_cast<const char16_t*>(text);
}

std::u16string ValueName(int id, int value) {
    OrqChar* name = nullptr;
    EXPECT_EQ(GetPropertyValName(id, value, &name), ORQ_OK) << id << " " << value;
    return name ? Text(name) : u"";
}

TEST(PropertyNames, TableSizesAndNamedValuesPerProperty) {
    EXPECT_EQ(PropertyNames().size(), 25u);
    EXPECT_EQ(PropertyWritable().size(), 25u);
    EXPECT_EQ(PropertyValueNames().size(), 267u);
    EXPECT_EQ(PropertyValueByName().size(), 267u);

    const std::map<int32_t, size_t> counts = {
        {0, 49}, {1, 6},   {2, 4},   {3, 3},  {4, 11}, {5, 3},   {6, 2},  {7, 24}, {8, 16},
        {9, 49}, {10, 19}, {11, 13}, {13, 5}, {14, 6}, {15, 14}, {16, 5}, {17, 5}, {18, 5},
        {19, 5}, {20, 5},  {21, 5},  {22, 5}, {23, 4}, {24, 2},  {25, 2}};
    std::map<int32_t, size_t> actual;
    for (const auto& [key, name] : PropertyValueNames()) ++actual[key.first];
    EXPECT_EQ(actual, counts);

    // The inverse view answers every name with its own value.
    for (const auto& [key, name] : PropertyValueNames()) {
        EXPECT_EQ(PropertyValueByName().at({key.first, name}), key.second);
    }
}

TEST(PropertyNames, OnlyBatteryLevelIsReadOnly) {
    for (const auto& [id, writable] : PropertyWritable()) {
        EXPECT_EQ(writable, id != PROP_BATTERY_LEVEL) << id;
        EXPECT_EQ(IsPropertyWritable(id), writable);
    }
    EXPECT_FALSE(IsPropertyWritable(12));
}

TEST(GetPropertyName, KnownAndUnknownIds) {
    OrqChar* name = nullptr;
    ASSERT_EQ(GetPropertyName(10, &name), ORQ_OK);
    EXPECT_EQ(Text(name), u"Exposure Compensation");
    // The same constant text every time: nothing is allocated for the caller.
    OrqChar* again = nullptr;
    ASSERT_EQ(GetPropertyName(10, &again), ORQ_OK);
    EXPECT_EQ(again, name);
    for (int id : {12, 26, -1}) {
        EXPECT_EQ(GetPropertyName(id, &again), ORQ_ERROR) << id;
        EXPECT_EQ(again, name);
    }
    EXPECT_EQ(GetPropertyName(0, nullptr), ORQ_ERROR);
}

TEST(GetPropertyValName, NamesIndependentOfAnyModel) {
    // One of each way a name is spelled: words, ISO, the forms of times, signed steps
    // and the three-stop values outside their order.
    EXPECT_EQ(ValueName(0, 21), u"iFrameMovie");
    EXPECT_EQ(ValueName(7, 12800), u"ISO 12800");
    EXPECT_EQ(ValueName(9, 2500), u"1/4");
    EXPECT_EQ(ValueName(9, 3000), u"0\"3");
    EXPECT_EQ(ValueName(11, 233), u"+0.33");
    EXPECT_EQ(ValueName(10, 505), u"+3");

    OrqChar* name = nullptr;
    EXPECT_EQ(GetPropertyValName(9, 3, &name), ORQ_ERROR);  // Tv values are not dense
    EXPECT_EQ(GetPropertyValName(11, 500, &name), ORQ_ERROR);
    EXPECT_EQ(GetPropertyValName(0, 49, &name), ORQ_ERROR);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(GetPropertyValName(0, 0, nullptr), ORQ_ERROR);
}

}  // namespace
}  // namespace orq
