#include "models/ModelData.h"

// Tables are laid out as they are read, one record per value; the formatter keeps out.
// clang-format off

namespace orq::models {

CameraConfig MakeSX40() {
    CameraConfig model;
    model.name = u"SX40";
    model.maxZoom = 200;
    model.lens = {4.4, 152.0, 5.7};
    model.constraints = {0, 1, 2};
    model.videoSupported = false;
    model.properties = {
        {ORQ_PROP_SHOOTING_MODE,
         ShootingMode({{0, 32768}, {1, 32772}, {2, 32769}, {3, 32770}, {4, 32771}, {30, 33287},
                       {31, 16950}, {9, 16400}, {23, 16399}, {24, 16938}, {32, 16905},
                       {33, 16942}, {11, 16418}, {25, 16408}, {26, 16406}, {18, 16407},
                       {19, 16409}, {34, 16909}, {12, 8748}, {13, 8749}, {14, 8752}, {15, 8755},
                       {16, 8743}, {17, 8744}, {28, 8734}, {29, 8735}, {6, 2622}, {21, 2629},
                       {43, 2627}})},
        {ORQ_PROP_IMAGE_SIZE, Plain(222, {Sized(0, 0, 4000, 3000), Sized(1, 1, 2816, 2112),
                                      Sized(2, 2, 1600, 1200), Sized(4, 4, 640, 480)})},
        {ORQ_PROP_JPEG_QUALITY, Plain(57, Same({0, 1, 2}))},
        {ORQ_PROP_METERING_MODE, Plain(157, Same({0, 1, 2}))},
        {ORQ_PROP_WB_MODE, Plain(272, {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 7}})},
        // On case 121, which is also Flash Power's flash adjust mode on this model.
        {ORQ_PROP_FLASH_MODE, Plain(121, Same({0, 1, 2}))},
        {ORQ_PROP_RED_EYE_MODE, SubProperty(220, 217, RedEyeValues())},
        {ORQ_PROP_ISO_SPEED, Plain(149, Same({0, 80, 100, 200, 400, 800, 1600, 3200}))},
        {ORQ_PROP_AV, Plain(26, {{27, 276}, {32, 320}, {35, 352}, {40, 384}, {45, 416}, {50, 448},
                             {56, 480}, {63, 512}, {71, 544}, {80, 576}})},
        {ORQ_PROP_TV,
         Plain(268, TvValues(4, Negatives::Signed32, TvDeviation::No40000ShortTimesMinus32))},
        {ORQ_PROP_EXPOSURE_COMPENSATION, SubProperty(107, 211, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_FLASH_COMPENSATION, Plain(127, Compensation(Negatives::Unsigned16))},
        {ORQ_PROP_BATTERY_LEVEL, BatteryLevel()},
        {ORQ_PROP_FOCUSING_ZONE, FocusingZone({{1, 0}, {2, 1}})},
        {ORQ_PROP_FLASH_POWER, FlashPower()},
    };
    return model;
}

}  // namespace orq::models
// clang-format on
