#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeA800() {
    CameraConfig model;
    model.name = u"A800";
    model.maxZoom = 6;
    model.lens = {6.2, 19.9, 5.6};
    model.constraints = {0};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {36, 16435}, {9, 16399}, {27, 16402}, {10, 16936},
                       {11, 16417}, {16, 16934}, {17, 16935}, {25, 16407}, {26, 16405},
                       {18, 16406}, {40, 16404}, {19, 16408}, {20, 16390}, {6, 2618}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 3648, 2736), Sized(1, 1, 2816, 2112),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(272, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(220, 217, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0}))},  // automatic only
        {ORQ_PROP_EXPOSURE_COMPENSATION, SubProperty(107, 211, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{0, 0}})},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
