#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeSX130() {
    CameraConfig model;
    model.name = u"SX130";
    model.maxZoom = 125;
    model.lens = {4.8, 58.1, 5.4};
    model.constraints = {0, 1, 2};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {3, 32770}, {4, 32771}, {5, 33314},
                       {9, 32783}, {23, 32782}, {27, 32786}, {24, 16937}, {11, 16417},
                       {16, 16934}, {17, 16935}, {28, 16925}, {29, 16926}, {12, 16939},
                       {13, 16940}, {25, 16407}, {26, 16405}, {18, 16406}, {19, 16408},
                       {6, 2614}, {37, 2620}, {38, 2612}, {39, 2613}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 4000, 3000), Sized(1, 1, 2816, 2112),
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
        // The one model whose exposure compensation has no second case.
        {ORQ_PROP_EXPOSURE_COMPENSATION, Plain(211, Compensation(Negatives::Signed32))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Signed32))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{1, 0}, {2, 1}})},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
