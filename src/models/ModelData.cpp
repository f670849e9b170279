#include "models/ModelData.h"

#include <iterator>
#include <utility>

namespace orq::models {

namespace {

int32_t InForm(int32_t cameraValue, Negatives form) {
    return (form == Negatives::Unsigned16 && cameraValue < 0) ? cameraValue + 0x10000 : cameraValue;
}

// The Tv values from the longest time to the shortest; rung k has camera value -384 + 32 k, which
// puts 1" (10000) on 0.
constexpr int32_t kTvLadder[] = {
    150000, 130000, 100000, 80000, 60000, 50000, 40000, 32000, 25000, 20000, 16000, 13000, 10000,
    8000,   6000,   5000,   4000,  3000,  2500,  2000,  1666,  1250,  1000,  769,   666,   500,
    400,    333,    250,    200,   166,   125,   100,   80,    62,    50,    40,    31,    25,
    20,     15,     12,     10,    8,     6,     5,     4,     2,     1,
};
static_assert(std::size(kTvLadder) == 49, "one rung per Tv value");

}  // namespace

Values Same(std::initializer_list<int32_t> values) {
    Values records;
    for (int32_t value : values) records.push_back({value, value});
    return records;
}

PropertyValue Sized(int32_t value, int32_t cameraValue, int32_t width, int32_t height) {
    return {value, cameraValue, true, width, height};
}

Values RedEyeValues() {
    return {{0, 1}, {1, 0}};
}

Values ColorAdjustValues() {
    return {{0, 254}, {1, 255}, {2, 0}, {3, 1}, {4, 2}};
}

Values Compensation(Negatives form) {
    // Thirds of a stop, 32 camera units each; SDK value 200 is no compensation.
    const Values steps = {{0, -192},  {34, -160}, {67, -128}, {100, -96}, {134, -64},
                          {167, -32}, {200, 0},   {233, 32},  {266, 64},  {300, 96},
                          {333, 128}, {366, 160}, {400, 192}};
    Values records;
    for (PropertyValue step : steps) {
        step.cameraValue = InForm(step.cameraValue, form);
        records.push_back(step);
    }
    return records;
}

Values TvValues(int32_t shortestValue, Negatives form, TvDeviation deviation) {
    Values records;
    for (int32_t rung = 0; rung < static_cast<int32_t>(std::size(kTvLadder)); ++rung) {
        const int32_t value = kTvLadder[rung];
        int32_t cameraValue = -384 + 32 * rung;
        if (deviation != TvDeviation::None && value == 40000) continue;
        if (deviation == TvDeviation::No40000LongTimesPlus32 && value >= 50000) cameraValue += 32;
        if (deviation == TvDeviation::No40000ShortTimesMinus32 && value <= 32000) {
            cameraValue -= 32;
        }
        records.push_back({value, InForm(cameraValue, form)});
        if (value == shortestValue) break;
    }
    return records;
}

PropertyEntry Plain(int32_t propCase, Values values) {
    return {propCase, std::move(values), PropertyKind::Plain, 0, 0};
}

PropertyEntry SubProperty(int32_t propCase, int32_t subCase1, Values values) {
    return {propCase, std::move(values), PropertyKind::SubProperty, subCase1, 0};
}

PropertyEntry SubProperty2(int32_t propCase, int32_t subCase1, int32_t subCase2, Values values) {
    return {propCase, std::move(values), PropertyKind::SubProperty2, subCase1, subCase2};
}

PropertyEntry ShootingMode(Values values) {
    return {49, std::move(values), PropertyKind::CaptureMode, 0, 0};
}

PropertyEntry FocusingZone(Values values) {
    return Plain(6, std::move(values));
}

PropertyEntry BatteryLevel() {
    return Plain(-1, Same({0, 1, 2, 3, 4}));
}

PropertyEntry FlashPower() {
    // 121 is the flash adjust mode, 141 the manual flash output.
    return {-1, Same({0, 1, 2, 3}), PropertyKind::FlashPower, 121, 141};
}

PropertyEntry DirectTransfer() {
    return Plain(-1, Same({0, 1}));
}

PropertyEntry ManualFocusMode() {
    return {-1, Same({0, 1}), PropertyKind::ManualFocus, 0, 0};
}

}  // namespace orq::models
