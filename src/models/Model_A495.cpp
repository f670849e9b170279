#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeA495() {
    CameraConfig model;
    model.name = u"A495";
    model.maxZoom = 6;
    model.lens = {6.3, 20.4, 5.5};
    model.constraints = {0};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {9, 16399}, {41, 16397}, {27, 16402}, {42, 16403},
                       {10, 16936}, {11, 16417}, {16, 16934}, {17, 16935}, {25, 16407},
                       {26, 16405}, {18, 16406}, {19, 16408}, {20, 16390}, {6, 2609}})},
        {ORQ_PROP_IMAGE_SIZE,
         Plain(220, {Sized(0, 0, 3648, 2736), Sized(1, 1, 2816, 2112), Sized(2, 2, 2272, 1704),
                     Sized(3, 3, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(155, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(270, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(218, 215, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 80, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_EXPOSURE_COMPENSATION, SubProperty(107, 209, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{0, 0}, {2, 1}, {4, 3}, {3, 5}})},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
