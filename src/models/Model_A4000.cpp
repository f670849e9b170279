#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeA4000() {
    CameraConfig model;
    model.name = u"A4000";
    model.maxZoom = 126;
    model.lens = {4.4, 35.6, 5.9};
    model.constraints = {0};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {3, 32770}, {4, 32771}, {8, 33336},
                       {9, 32785}, {10, 33324}, {11, 32805}, {12, 33327}, {13, 33328},
                       {14, 33331}, {15, 33334}, {16, 33322}, {17, 33323}, {18, 32793},
                       {19, 32795}, {20, 32774}, {7, 32821}, {21, 2633}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 4608, 3456), Sized(1, 1, 3264, 2448),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480),
                                      Sized(5, 7, 2304, 1728)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(272, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(220, 217, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{0, 0}})},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
