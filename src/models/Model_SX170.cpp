#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeSX170() {
    CameraConfig model;
    model.name = u"SX170";
    model.maxZoom = 125;
    model.lens = {4.6, 73.0, 5.7};
    model.constraints = {0, 1, 2, 3};
    model.videoSupported = false;
    model.focusTable = SX160FocusTable();  // same lens positions as the SX160
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {3, 32770}, {4, 32771}, {8, 33339},
                       {12, 8753}, {13, 8754}, {14, 8757}, {15, 8761}, {16, 8748}, {17, 8749},
                       {7, 32824}, {6, 2630}, {9, 16403}, {10, 16942}, {11, 16423}, {18, 16411},
                       {19, 16413}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(221, {Sized(0, 0, 4608, 3456), Sized(1, 1, 3264, 2448),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(271, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(219, 216, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_AV, Plain(26, {{35, 352}, {40, 384}, {45, 416}, {50, 448}, {56, 480}, {63, 512},
                             {71, 544}, {80, 576}})},
        {ORQ_PROP_TV, Plain(267, TvValues(2, Negatives::Unsigned16, TvDeviation::None))},
        {ORQ_PROP_EXPOSURE_COMPENSATION, SubProperty(107, 210, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{1, 0}, {2, 1}, {5, 4}})},
        {ORQ_PROP_MY_COLORS, Plain(187, {{0, 0}, {1, 1}, {2, 2}, {3, 4}, {4, 3}, {5, 5}, {6, 6},
                                     {7, 7}, {8, 10}, {9, 9}, {10, 8}, {11, 11}})},
        {ORQ_PROP_CONTRAST, Plain(59, ColorAdjustValues())},
        {ORQ_PROP_SHARPNESS, Plain(228, ColorAdjustValues())},
        {ORQ_PROP_SATURATION, Plain(55, ColorAdjustValues())},
        {ORQ_PROP_RED, Plain(178, ColorAdjustValues())},
        {ORQ_PROP_GREEN, Plain(177, ColorAdjustValues())},
        {ORQ_PROP_BLUE, Plain(176, ColorAdjustValues())},
        {ORQ_PROP_SKIN_TONE, Plain(179, ColorAdjustValues())},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
        {ORQ_PROP_DIRECT_TRANSFER, DirectTransfer()},
        {ORQ_PROP_MANUAL_FOCUS_MODE, ManualFocusMode()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
