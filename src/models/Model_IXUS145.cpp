#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeIXUS145() {
    CameraConfig model;
    model.name = u"IXUS145";
    model.maxZoom = 100;
    model.lens = {4.9, 39.5, 5.7};
    model.constraints = {0};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {8, 33340}, {22, 33342}, {9, 32788}, {10, 33327},
                       {11, 32808}, {12, 33330}, {13, 33331}, {14, 33334}, {15, 33338},
                       {16, 33325}, {17, 33326}, {18, 32796}, {19, 32798}, {20, 32774}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(221, {Sized(0, 0, 4608, 3456), Sized(1, 1, 3264, 2448),
                                      Sized(2, 2, 2048, 1536), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(271, {{0, 0}, {1, 1}, {2, 3}, {3, 4}, {4, 5}, {5, 6}, {6, 8}})},
        {ORQ_PROP_FLASH_MODE, Plain(143, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(219, 216, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 100, 200, 400, 800, 1600}))},
        {ORQ_PROP_EXPOSURE_COMPENSATION, SubProperty(107, 210, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{1, 0}, {2, 1}, {4, 3}})},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
