#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeA1400() {
    CameraConfig model;
    model.name = u"A1400";
    model.maxZoom = 63;
    model.lens = {4.7, 23.1, 5.7};
    model.constraints = {0};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {8, 33338}, {22, 33340}, {9, 32787}, {10, 33326},
                       {11, 32807}, {12, 33329}, {13, 33330}, {14, 33333}, {15, 33336},
                       {16, 33324}, {17, 33325}, {18, 32795}, {19, 32797}, {20, 32774}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(221, {Sized(0, 0, 4608, 3456), Sized(1, 1, 3264, 2448),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480),
                                      Sized(5, 7, 2304, 1728)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(167, {{0, 0}, {1, 1}, {2, 2}, {3, 10}})},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(271, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(219, 216, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{0, 0}, {2, 1}, {4, 3}})},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
        {ORQ_PROP_DIRECT_TRANSFER, DirectTransfer()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
