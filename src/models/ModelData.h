// Building blocks of the model profiles (Model_*.cpp). Only the profile sources include this.
//
// Every table is built through functions rather than namespace-scope objects: the profile table
// is built during static initialisation, and other translation units' objects may not exist yet.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "models/CameraConfig.h"

namespace orq::models {

using Values = std::vector<PropertyValue>;

// How a table spells negative camera values. The engine compares whole 32-bit words, so a table
// must keep the form its camera reports: 65344 and -192 are different raw values.
enum class Negatives { Unsigned16, Signed32 };

// How a model's Tv table departs from the common ladder (rung k: camera value -384 + 32 k).
enum class TvDeviation {
    None,
    // 40000 is missing and 150000 .. 50000 read one rung shorter (+32).
    No40000LongTimesPlus32,
    // 40000 is missing and 32000 .. the shortest time read one rung longer (-32).
    No40000ShortTimesMinus32,
};

// Records whose camera value equals the SDK value.
Values Same(std::initializer_list<int32_t> values);
PropertyValue Sized(int32_t value, int32_t cameraValue, int32_t width, int32_t height);

// Tables that are the same on every model that offers the property.
Values RedEyeValues();       // the camera's sense is inverted
Values ColorAdjustValues();  // ids 16-22: 8-bit two's complement on the camera
Values Compensation(Negatives form);
// The ladder from 150000 (15") down to shortestValue, in that order.
Values TvValues(int32_t shortestValue, Negatives form, TvDeviation deviation);

PropertyEntry Plain(int32_t propCase, Values values);
PropertyEntry SubProperty(int32_t propCase, int32_t subCase1, Values values);
PropertyEntry SubProperty2(int32_t propCase, int32_t subCase1, int32_t subCase2, Values values);

// Entries whose case and kind are the same on every model.
PropertyEntry ShootingMode(Values values);  // case 49, written by SetCaptureMode
PropertyEntry FocusingZone(Values values);  // case 6
PropertyEntry BatteryLevel();
PropertyEntry FlashPower();
PropertyEntry DirectTransfer();
PropertyEntry ManualFocusMode();

// The generated manual-focus tables (FocusTables.cpp); SX170 uses SX160's.
const FocusTable& SX150FocusTable();
const FocusTable& SX160FocusTable();

CameraConfig MakeA1400();
CameraConfig MakeA2200();
CameraConfig MakeA4000();
CameraConfig MakeA495();
CameraConfig MakeA800();
CameraConfig MakeA810();
CameraConfig MakeG15();
CameraConfig MakeIXUS145();
CameraConfig MakeSX130();
CameraConfig MakeSX150();
CameraConfig MakeSX160();
CameraConfig MakeSX170();
CameraConfig MakeSX40();
CameraConfig MakeSX500();
CameraConfig MakeSX510();

}  // namespace orq::models
