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

TEST(PropertyNames, TablesAndLookups) {
    const std::map<int32_t, size_t> counts = {
        {0, 49}, {1, 6},   {2, 4},   {3, 3},  {4, 11}, {5, 3},   {6, 2},  {7, 24}, {8, 16},
        {9, 49}, {10, 19}, {11, 13}, {13, 5}, {14, 6}, {15, 14}, {16, 5}, {17, 5}, {18, 5},
        {19, 5}, {20, 5},  {21, 5},  {22, 5}, {23, 4}, {24, 2},  {25, 2}};
    std::map<int32_t, size_t> actual;
    for (const auto& [key, name] : PropertyValueNames()) ++actual[key.first];
    EXPECT_EQ(actual, counts);
    // Every name answers with its own value: no two values of a property share a name.
    for (const auto& [key, name] : PropertyValueNames()) {
        EXPECT_EQ(PropertyValueByName().at({key.first, name}), key.second);
    }
    for (const auto& [id, name] : PropertyNames()) {
        EXPECT_EQ(IsPropertyWritable(id), id != ORQ_PROP_BATTERY_LEVEL) << id;
    }
    EXPECT_FALSE(IsPropertyWritable(12));

    // The lookups hand out constant texts and leave the output alone on a miss.
    OrqChar* name = nullptr;
    ASSERT_EQ(GetPropertyName(10, &name), ORQ_OK);
    OrqChar* again = nullptr;
    ASSERT_EQ(GetPropertyName(10, &again), ORQ_OK);
    EXPECT_EQ(again, name);
    EXPECT_EQ(GetPropertyName(26, &again), ORQ_ERROR);
    EXPECT_EQ(again, name);
    EXPECT_EQ(GetPropertyName(0, nullptr), ORQ_ERROR);

    // One of each way a value name is spelled: words, ISO, the forms of times, signed steps and
    // the three-stop values outside their order.
    const std::pair<std::pair<int, int>, std::u16string> spellings[] = {
        {{0, 21}, u"iFrameMovie"}, {{7, 12800}, u"ISO 12800"}, {{9, 2500}, u"1/4"},
        {{9, 3000}, u"0\"3"},      {{11, 233}, u"+0.33"},      {{10, 505}, u"+3"}};
    for (const auto& [key, text] : spellings) {
        name = nullptr;
        ASSERT_EQ(GetPropertyValName(key.first, key.second, &name), ORQ_OK) << key.second;
        EXPECT_EQ(Text(name), text);
    }
    // Tv values are not dense; flash compensation has no three-stop values.
    const std::pair<int, int> misses[] = {{9, 3}, {11, 500}, {0, 49}};
    for (const auto& [id, value] : misses) {
        EXPECT_EQ(GetPropertyValName(id, value, &name), ORQ_ERROR) << id << " " << value;
    }
    EXPECT_EQ(Text(name), u"+3");
    EXPECT_EQ(GetPropertyValName(0, 0, nullptr), ORQ_ERROR);
}

}  // namespace
}  // namespace orq
