#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeG15() {
    CameraConfig model;
    model.name = u"G15";
    model.maxZoom = 120;
    model.lens = {6.2, 30.8, 4.6};
    model.constraints = {0, 1, 2, 3};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {3, 32770}, {4, 32771}, {31, 33337},
                       {9, 16401}, {44, 16914}, {24, 16941}, {32, 16393}, {33, 16945},
                       {45, 16924}, {18, 16409}, {19, 16411}, {34, 16909}, {46, 8754},
                       {47, 8745}, {12, 8751}, {13, 8752}, {14, 8755}, {48, 8756}, {15, 8758},
                       {16, 8746}, {17, 8747}, {28, 8737}, {29, 8738}, {6, 2626}, {21, 2633},
                       {43, 2631}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 4000, 3000), Sized(1, 1, 2816, 2112),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        // Both custom slots of the camera (8 and 9) read as value 9; value 10 is never used.
        {ORQ_PROP_WB_MODE, Plain(272, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {9, 8}, {9, 9},
                                   {7, 6}, {8, 10}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(220, 217, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED,
         Plain(149, Same({0, 80, 100, 125, 160, 200, 250, 320, 400, 500, 640, 800, 1000, 1250,
                          1600, 2000, 2500, 3200, 4000, 5000, 6400, 8000, 10000, 12800}))},
        {ORQ_PROP_AV, Plain(26, {{18, 171}, {20, 192}, {22, 224}, {25, 256}, {28, 288}, {32, 320},
                             {35, 352}, {40, 384}, {45, 416}, {50, 448}, {56, 480}, {63, 512},
                             {71, 544}, {80, 576}})},
        {ORQ_PROP_TV, Plain(268, TvValues(1, Negatives::Unsigned16, TvDeviation::None))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{1, 0}, {2, 1}})},
        {ORQ_PROP_MY_COLORS, Plain(188, {{0, 0}, {1, 1}, {2, 2}, {3, 4}, {4, 3}, {5, 5}, {6, 6},
                                     {7, 7}, {8, 10}, {9, 9}, {10, 8}, {11, 11}})},
        {ORQ_PROP_CONTRAST, Plain(59, ColorAdjustValues())},
        {ORQ_PROP_SHARPNESS, Plain(229, ColorAdjustValues())},
        {ORQ_PROP_SATURATION, Plain(55, ColorAdjustValues())},
        {ORQ_PROP_RED, Plain(179, ColorAdjustValues())},
        {ORQ_PROP_GREEN, Plain(178, ColorAdjustValues())},
        {ORQ_PROP_BLUE, Plain(177, ColorAdjustValues())},
        {ORQ_PROP_SKIN_TONE, Plain(180, ColorAdjustValues())},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
