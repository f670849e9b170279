#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeSX150() {
    CameraConfig model;
    model.name = u"SX150";
    model.maxZoom = 125;
    model.lens = {4.9, 60.2, 5.5};
    model.constraints = {0, 1, 2, 3};
    model.videoSupported = false;
    model.focusTable = SX150FocusTable();
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {3, 32770}, {4, 32771}, {5, 33315},
                       {6, 2622}, {21, 2629}, {7, 32818}, {9, 16400}, {23, 16399}, {24, 16938},
                       {11, 16418}, {25, 16408}, {26, 16406}, {18, 16407}, {19, 16409},
                       {27, 16403}, {12, 8748}, {13, 8749}, {14, 8752}, {15, 8755}, {16, 8743},
                       {17, 8744}, {28, 8734}, {29, 8735}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 4320, 3240), Sized(1, 1, 3072, 2304),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(272, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(220, 217, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 80, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_AV, Plain(26, {{34, 347}, {40, 384}, {45, 416}, {50, 448}, {56, 480}, {63, 512},
                             {71, 544}, {80, 576}})},
        {ORQ_PROP_TV,
         Plain(268, TvValues(4, Negatives::Signed32, TvDeviation::No40000LongTimesPlus32))},
        {ORQ_PROP_EXPOSURE_COMPENSATION, SubProperty(107, 211, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Signed32))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{1, 0}, {2, 1}})},
        {ORQ_PROP_MY_COLORS, Plain(188, {{0, 0}, {1, 1}, {2, 2}, {3, 4}, {4, 3}, {5, 5}, {6, 6},
                                     {7, 7}, {8, 10}, {9, 9}, {10, 8}, {11, 11}, {12, 14},
                                     {13, 13}})},
        {ORQ_PROP_CONTRAST, Plain(59, ColorAdjustValues())},
        {ORQ_PROP_SHARPNESS, Plain(229, ColorAdjustValues())},
        {ORQ_PROP_SATURATION, Plain(55, ColorAdjustValues())},
        {ORQ_PROP_RED, Plain(179, ColorAdjustValues())},
        {ORQ_PROP_GREEN, Plain(178, ColorAdjustValues())},
        {ORQ_PROP_BLUE, Plain(177, ColorAdjustValues())},
        {ORQ_PROP_SKIN_TONE, Plain(180, ColorAdjustValues())},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
        {ORQ_PROP_MANUAL_FOCUS_MODE, ManualFocusMode()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
