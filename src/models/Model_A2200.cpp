#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeA2200() {
    CameraConfig model;
    model.name = u"A2200";
    model.maxZoom = 6;
    model.lens = {4.9, 19.2, 5.8};
    model.constraints = {0, 3};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {8, 33332}, {5, 33314}, {36, 16435},
                       {9, 16399}, {23, 16398}, {27, 16402}, {24, 16937}, {11, 16417},
                       {25, 16407}, {26, 16405}, {18, 16406}, {19, 16408}, {20, 16390},
                       {12, 8747}, {13, 8748}, {14, 8751}, {15, 8754}, {16, 8742}, {17, 8743},
                       {7, 32817}, {6, 2621}, {37, 2627}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 3648, 2736), Sized(1, 1, 2816, 2112),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(272, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(220, 217, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 80, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{0, 0}, {2, 1}, {4, 3}})},
        {ORQ_PROP_MY_COLORS, Plain(188, {{0, 0}, {1, 1}, {2, 2}, {3, 4}, {4, 3}, {11, 11}})},
        {ORQ_PROP_CONTRAST, Plain(59, ColorAdjustValues())},
        {ORQ_PROP_SHARPNESS, Plain(229, ColorAdjustValues())},
        {ORQ_PROP_SATURATION, Plain(55, ColorAdjustValues())},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
