// The numbers of properties as they cross the SDK boundary. They are the same on every model; a
// model offers a subset of them. There is no property 12.
#pragma once

#include <cstdint>

namespace orq {

enum PropertyId : int32_t {
    PROP_SHOOTING_MODE = 0,
    PROP_IMAGE_SIZE = 1,
    PROP_JPEG_QUALITY = 2,
    PROP_METERING_MODE = 3,
    PROP_WB_MODE = 4,
    PROP_FLASH_MODE = 5,
    PROP_RED_EYE_MODE = 6,
    PROP_ISO_SPEED = 7,
    PROP_AV = 8,
    PROP_TV = 9,
    PROP_EXPOSURE_COMPENSATION = 10,
    PROP_FLASH_COMPENSATION = 11,
    PROP_BATTERY_LEVEL = 13,
    PROP_FOCUSING_ZONE = 14,
    PROP_MY_COLORS = 15,
    PROP_CONTRAST = 16,
    PROP_SHARPNESS = 17,
    PROP_SATURATION = 18,
    PROP_RED = 19,
    PROP_GREEN = 20,
    PROP_BLUE = 21,
    PROP_SKIN_TONE = 22,
    PROP_FLASH_POWER = 23,
    PROP_DIRECT_TRANSFER = 24,
    PROP_MANUAL_FOCUS_MODE = 25,
};

}  // namespace orq
