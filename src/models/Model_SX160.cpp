#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeSX160() {
    CameraConfig model;
    model.name = u"SX160";
    model.maxZoom = 125;
    model.lens = {4.6, 73.4, 5.6};
    model.constraints = {0, 1, 2, 3};
    model.videoSupported = false;
    model.focusTable = SX160FocusTable();
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {3, 32770}, {4, 32771}, {6, 2626},
                       {21, 2633}, {7, 32821}, {9, 16401}, {10, 16940}, {11, 16421},
                       {18, 16409}, {19, 16411}, {12, 8751}, {13, 8752}, {14, 8755},
                       {15, 8758}, {16, 8746}, {17, 8747}, {8, 33336}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 4608, 3456), Sized(1, 1, 3264, 2448),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(272, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(220, 217, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_AV, Plain(26, {{35, 352}, {40, 384}, {45, 416}, {50, 448}, {56, 480}, {63, 512},
                             {71, 544}, {80, 576}})},
        {ORQ_PROP_TV,
         Plain(268, TvValues(2, Negatives::Signed32, TvDeviation::No40000LongTimesPlus32))},
        {ORQ_PROP_EXPOSURE_COMPENSATION, SubProperty(107, 211, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Unsigned16))},
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
        {ORQ_PROP_DIRECT_TRANSFER, DirectTransfer()},
        {ORQ_PROP_MANUAL_FOCUS_MODE, ManualFocusMode()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
