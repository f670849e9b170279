/** \file orqsdk_props.h
 * Property ids and property values of OrqSDK; included by orqsdk.h.
 *
 * A property id is the propertyId of the property calls and of the property-changed callback.
 * The ids are the same on every model; a model offers a subset of them (OrqGetPropertyList),
 * and of each property a subset of its values, which may change with the camera's state
 * (OrqGetPropertyDesc). There is no id 12. OrqGetPropertyName and OrqGetPropertyValName give
 * the English display text of every id and value below.
 */
#ifndef ORQSDK_PROPS_H
#define ORQSDK_PROPS_H

/** Property ids, with the property's English name. */
typedef enum OrqPropertyId {
    ORQ_PROP_SHOOTING_MODE = 0,          /**< "Shooting Mode" */
    ORQ_PROP_IMAGE_SIZE = 1,             /**< "Image Size" */
    ORQ_PROP_JPEG_QUALITY = 2,           /**< "JPEG Quality" */
    ORQ_PROP_METERING_MODE = 3,          /**< "Metering Mode" */
    ORQ_PROP_WB_MODE = 4,                /**< "WB Mode" */
    ORQ_PROP_FLASH_MODE = 5,             /**< "Flash Mode" */
    ORQ_PROP_RED_EYE_MODE = 6,           /**< "Red Eye Mode" */
    ORQ_PROP_ISO_SPEED = 7,              /**< "ISO Speed" */
    ORQ_PROP_AV = 8,                     /**< "Av" */
    ORQ_PROP_TV = 9,                     /**< "Tv" */
    ORQ_PROP_EXPOSURE_COMPENSATION = 10, /**< "Exposure Compensation" */
    ORQ_PROP_FLASH_COMPENSATION = 11,    /**< "Flash Compensation" */
    ORQ_PROP_BATTERY_LEVEL = 13,         /**< "Battery Level"; read-only */
    ORQ_PROP_FOCUSING_ZONE = 14,         /**< "Focusing Zone" */
    ORQ_PROP_MY_COLORS = 15,             /**< "My Colors" */
    ORQ_PROP_CONTRAST = 16,              /**< "Contrast" */
    ORQ_PROP_SHARPNESS = 17,             /**< "Sharpness" */
    ORQ_PROP_SATURATION = 18,            /**< "Saturation" */
    ORQ_PROP_RED = 19,                   /**< "Red" */
    ORQ_PROP_GREEN = 20,                 /**< "Green" */
    ORQ_PROP_BLUE = 21,                  /**< "Blue" */
    ORQ_PROP_SKIN_TONE = 22,             /**< "Skin Tone" */
    ORQ_PROP_FLASH_POWER = 23,           /**< "Flash Power" */
    ORQ_PROP_DIRECT_TRANSFER = 24,       /**< "Direct Transfer" */
    ORQ_PROP_MANUAL_FOCUS_MODE = 25,     /**< "Manual Focus Mode" */
} OrqPropertyId;

/** Values of ORQ_PROP_SHOOTING_MODE. The numbering is the SDK's own, not the camera's. */
typedef enum OrqShootingMode {
    ORQ_SHOOTING_MODE_AUTO = 0,                     /**< "Auto" */
    ORQ_SHOOTING_MODE_PROGRAM = 1,                  /**< "Program" */
    ORQ_SHOOTING_MODE_MANUAL = 2,                   /**< "Manual" */
    ORQ_SHOOTING_MODE_AV = 3,                       /**< "AV" */
    ORQ_SHOOTING_MODE_TV = 4,                       /**< "TV" */
    ORQ_SHOOTING_MODE_EASY = 5,                     /**< "Easy" */
    ORQ_SHOOTING_MODE_MOVIE = 6,                    /**< "Movie" */
    ORQ_SHOOTING_MODE_DISCREET = 7,                 /**< "Discreet" */
    ORQ_SHOOTING_MODE_LIVE_VIEW = 8,                /**< "LiveView" */
    ORQ_SHOOTING_MODE_PORTRAIT = 9,                 /**< "Portrait" */
    ORQ_SHOOTING_MODE_FACE_SELF_TIMER = 10,         /**< "FaceSelfTimer" */
    ORQ_SHOOTING_MODE_LOW_LIGHT = 11,               /**< "LowLight" */
    ORQ_SHOOTING_MODE_FISH_EYE_EFFECT = 12,         /**< "FishEyeEffect" */
    ORQ_SHOOTING_MODE_MINIATURE_EFFECT = 13,        /**< "MiniatureEffect" */
    ORQ_SHOOTING_MODE_TOY_CAMERA_EFFECT = 14,       /**< "ToyCameraEffect" */
    ORQ_SHOOTING_MODE_MONOCHROME = 15,              /**< "Monochrome" */
    ORQ_SHOOTING_MODE_SUPER_VIVID = 16,             /**< "SuperVivid" */
    ORQ_SHOOTING_MODE_POSTER_EFFECT = 17,           /**< "PosterEffect" */
    ORQ_SHOOTING_MODE_SNOW = 18,                    /**< "Snow" */
    ORQ_SHOOTING_MODE_FIREWORKS = 19,               /**< "Fireworks" */
    ORQ_SHOOTING_MODE_LONG_SHUTTER = 20,            /**< "LongShutter" */
    ORQ_SHOOTING_MODE_I_FRAME_MOVIE = 21,           /**< "iFrameMovie" */
    ORQ_SHOOTING_MODE_DIGITAL_IS = 22,              /**< "DigitalIS" */
    ORQ_SHOOTING_MODE_LANDSCAPE = 23,               /**< "Landscape" */
    ORQ_SHOOTING_MODE_SMART_SHUTTER = 24,           /**< "SmartShutter" */
    ORQ_SHOOTING_MODE_BEACH = 25,                   /**< "Beach" */
    ORQ_SHOOTING_MODE_FOLIAGE = 26,                 /**< "Foliage" */
    ORQ_SHOOTING_MODE_KIDS_AND_PETS = 27,           /**< "KidsAndPets" */
    ORQ_SHOOTING_MODE_COLOR_ACCENT = 28,            /**< "ColorAccent" */
    ORQ_SHOOTING_MODE_COLOR_SWAP = 29,              /**< "ColorSwap" */
    ORQ_SHOOTING_MODE_SPORTS = 30,                  /**< "Sports" */
    ORQ_SHOOTING_MODE_MOVIE_DIGEST = 31,            /**< "MovieDigest" */
    ORQ_SHOOTING_MODE_HIGH_SPEED_BURST_HQ = 32,     /**< "HighSpeedBurstHQ" */
    ORQ_SHOOTING_MODE_HANDHELD_NIGHT_SCENE = 33,    /**< "HandheldNightScene" */
    ORQ_SHOOTING_MODE_STITCH_ASSIST = 34,           /**< "StitchAssist" */
    ORQ_SHOOTING_MODE_HIGH_SPEED_BURST = 35,        /**< "HighSpeedBurst" */
    ORQ_SHOOTING_MODE_BLUR_REDUCTION = 36,          /**< "BlurReduction" */
    ORQ_SHOOTING_MODE_MOVIE_MINIATURE_EFFECT = 37,  /**< "MovieMiniatureEffect" */
    ORQ_SHOOTING_MODE_MOVIE_COLOR_ACCENT = 38,      /**< "MovieColorAccent" */
    ORQ_SHOOTING_MODE_MOVIE_COLOR_SWAP = 39,        /**< "MovieColorSwap" */
    ORQ_SHOOTING_MODE_SUNSET = 40,                  /**< "Sunset" */
    ORQ_SHOOTING_MODE_NIGHT_SNAPSHOT = 41,          /**< "NightSnapshot" */
    ORQ_SHOOTING_MODE_INDOOR = 42,                  /**< "Indoor" */
    ORQ_SHOOTING_MODE_SUPER_SLOW_MOTION_MOVIE = 43, /**< "SuperSlowMotionMovie" */
    ORQ_SHOOTING_MODE_SMOOTH_SKIN = 44,             /**< "SmoothSkin" */
    ORQ_SHOOTING_MODE_UNDERWATER = 45,              /**< "Underwater" */
    ORQ_SHOOTING_MODE_HIGH_DYNAMIC_RANGE = 46,      /**< "HighDynamicRange" */
    ORQ_SHOOTING_MODE_NOSTALGIC = 47,               /**< "Nostalgic" */
    ORQ_SHOOTING_MODE_SOFT_FOCUS = 48,              /**< "SoftFocus" */
} OrqShootingMode;

/** Values of ORQ_PROP_IMAGE_SIZE. The pixel size of each offered value is in OrqPropertyDesc.sizes.
 */
typedef enum OrqImageSize {
    ORQ_IMAGE_SIZE_LARGE = 0,    /**< "Large" */
    ORQ_IMAGE_SIZE_MEDIUM_1 = 1, /**< "Medium 1" */
    ORQ_IMAGE_SIZE_MEDIUM_2 = 2, /**< "Medium 2" */
    ORQ_IMAGE_SIZE_MEDIUM_3 = 3, /**< "Medium 3" */
    ORQ_IMAGE_SIZE_SMALL = 4,    /**< "Small" */
    ORQ_IMAGE_SIZE_MEDIUM = 5,   /**< "Medium" */
} OrqImageSize;

/** Values of ORQ_PROP_JPEG_QUALITY. */
typedef enum OrqJpegQuality {
    ORQ_JPEG_QUALITY_SUPERFINE = 0, /**< "Superfine" */
    ORQ_JPEG_QUALITY_FINE = 1,      /**< "Fine" */
    ORQ_JPEG_QUALITY_NORMAL = 2,    /**< "Normal" */
    ORQ_JPEG_QUALITY_NORMAL_2 = 3,  /**< "Normal 2" */
} OrqJpegQuality;

/** Values of ORQ_PROP_METERING_MODE. */
typedef enum OrqMeteringMode {
    ORQ_METERING_EVALUATIVE = 0, /**< "Evaluative" */
    ORQ_METERING_SPOT = 1,       /**< "Spot" */
    ORQ_METERING_CENTER = 2,     /**< "Center" */
} OrqMeteringMode;

/** Values of ORQ_PROP_WB_MODE (white balance). */
typedef enum OrqWhiteBalance {
    ORQ_WB_AUTO = 0,          /**< "Auto" */
    ORQ_WB_DAY_LIGHT = 1,     /**< "Day Light" */
    ORQ_WB_CLOUDY = 2,        /**< "Cloudy" */
    ORQ_WB_TUNGSTEN = 3,      /**< "Tungsten" */
    ORQ_WB_FLUORESCENT = 4,   /**< "Fluorescent" */
    ORQ_WB_FLUORESCENT_H = 5, /**< "Fluorescent H" */
    ORQ_WB_CUSTOM = 6,        /**< "Custom" */
    ORQ_WB_FLASH = 7,         /**< "Flash" */
    ORQ_WB_UNDERWATER = 8,    /**< "Underwater" */
    ORQ_WB_CUSTOM1 = 9,       /**< "Custom1" */
    ORQ_WB_CUSTOM2 = 10,      /**< "Custom2" */
} OrqWhiteBalance;

/** Values of ORQ_PROP_FLASH_MODE. */
typedef enum OrqFlashMode {
    ORQ_FLASH_AUTO = 0, /**< "Auto" */
    ORQ_FLASH_ON = 1,   /**< "On" */
    ORQ_FLASH_OFF = 2,  /**< "Off" */
} OrqFlashMode;

/** Values of ORQ_PROP_RED_EYE_MODE, ORQ_PROP_DIRECT_TRANSFER and ORQ_PROP_MANUAL_FOCUS_MODE.
 * Note that On is 0. */
typedef enum OrqSwitch {
    ORQ_SWITCH_ON = 0,  /**< "On" */
    ORQ_SWITCH_OFF = 1, /**< "Off" */
} OrqSwitch;

/** Values of ORQ_PROP_ISO_SPEED: the ISO number itself, 0 for automatic. */
typedef enum OrqIsoSpeed {
    ORQ_ISO_AUTO = 0,      /**< "Auto" */
    ORQ_ISO_80 = 80,       /**< "ISO 80" */
    ORQ_ISO_100 = 100,     /**< "ISO 100" */
    ORQ_ISO_125 = 125,     /**< "ISO 125" */
    ORQ_ISO_160 = 160,     /**< "ISO 160" */
    ORQ_ISO_200 = 200,     /**< "ISO 200" */
    ORQ_ISO_250 = 250,     /**< "ISO 250" */
    ORQ_ISO_320 = 320,     /**< "ISO 320" */
    ORQ_ISO_400 = 400,     /**< "ISO 400" */
    ORQ_ISO_500 = 500,     /**< "ISO 500" */
    ORQ_ISO_640 = 640,     /**< "ISO 640" */
    ORQ_ISO_800 = 800,     /**< "ISO 800" */
    ORQ_ISO_1000 = 1000,   /**< "ISO 1000" */
    ORQ_ISO_1250 = 1250,   /**< "ISO 1250" */
    ORQ_ISO_1600 = 1600,   /**< "ISO 1600" */
    ORQ_ISO_2000 = 2000,   /**< "ISO 2000" */
    ORQ_ISO_2500 = 2500,   /**< "ISO 2500" */
    ORQ_ISO_3200 = 3200,   /**< "ISO 3200" */
    ORQ_ISO_4000 = 4000,   /**< "ISO 4000" */
    ORQ_ISO_5000 = 5000,   /**< "ISO 5000" */
    ORQ_ISO_6400 = 6400,   /**< "ISO 6400" */
    ORQ_ISO_8000 = 8000,   /**< "ISO 8000" */
    ORQ_ISO_10000 = 10000, /**< "ISO 10000" */
    ORQ_ISO_12800 = 12800, /**< "ISO 12800" */
} OrqIsoSpeed;

/** Values of ORQ_PROP_AV (aperture): ten times the f-number. */
typedef enum OrqAperture {
    ORQ_AV_F1_8 = 18, /**< "1.8" */
    ORQ_AV_F2_0 = 20, /**< "2.0" */
    ORQ_AV_F2_2 = 22, /**< "2.2" */
    ORQ_AV_F2_5 = 25, /**< "2.5" */
    ORQ_AV_F2_7 = 27, /**< "2.7" */
    ORQ_AV_F2_8 = 28, /**< "2.8" */
    ORQ_AV_F3_2 = 32, /**< "3.2" */
    ORQ_AV_F3_4 = 34, /**< "3.4" */
    ORQ_AV_F3_5 = 35, /**< "3.5" */
    ORQ_AV_F4_0 = 40, /**< "4.0" */
    ORQ_AV_F4_5 = 45, /**< "4.5" */
    ORQ_AV_F5_0 = 50, /**< "5.0" */
    ORQ_AV_F5_6 = 56, /**< "5.6" */
    ORQ_AV_F6_3 = 63, /**< "6.3" */
    ORQ_AV_F7_1 = 71, /**< "7.1" */
    ORQ_AV_F8_0 = 80, /**< "8.0" */
} OrqAperture;

/** Values of ORQ_PROP_TV (exposure time). The values are not dense. Names ending in S are
 * seconds (ORQ_TV_1_3S: 1.3 s), the others fractions of a second (ORQ_TV_1_250: 1/250 s). */
typedef enum OrqShutterSpeed {
    ORQ_TV_1_4000 = 1,   /**< "1/4000" */
    ORQ_TV_1_3200 = 2,   /**< "1/3200" */
    ORQ_TV_1_2500 = 4,   /**< "1/2500" */
    ORQ_TV_1_2000 = 5,   /**< "1/2000" */
    ORQ_TV_1_1600 = 6,   /**< "1/1600" */
    ORQ_TV_1_1250 = 8,   /**< "1/1250" */
    ORQ_TV_1_1000 = 10,  /**< "1/1000" */
    ORQ_TV_1_800 = 12,   /**< "1/800" */
    ORQ_TV_1_640 = 15,   /**< "1/640" */
    ORQ_TV_1_500 = 20,   /**< "1/500" */
    ORQ_TV_1_400 = 25,   /**< "1/400" */
    ORQ_TV_1_320 = 31,   /**< "1/320" */
    ORQ_TV_1_250 = 40,   /**< "1/250" */
    ORQ_TV_1_200 = 50,   /**< "1/200" */
    ORQ_TV_1_160 = 62,   /**< "1/160" */
    ORQ_TV_1_125 = 80,   /**< "1/125" */
    ORQ_TV_1_100 = 100,  /**< "1/100" */
    ORQ_TV_1_80 = 125,   /**< "1/80" */
    ORQ_TV_1_60 = 166,   /**< "1/60" */
    ORQ_TV_1_50 = 200,   /**< "1/50" */
    ORQ_TV_1_40 = 250,   /**< "1/40" */
    ORQ_TV_1_30 = 333,   /**< "1/30" */
    ORQ_TV_1_25 = 400,   /**< "1/25" */
    ORQ_TV_1_20 = 500,   /**< "1/20" */
    ORQ_TV_1_15 = 666,   /**< "1/15" */
    ORQ_TV_1_13 = 769,   /**< "1/13" */
    ORQ_TV_1_10 = 1000,  /**< "1/10" */
    ORQ_TV_1_8 = 1250,   /**< "1/8" */
    ORQ_TV_1_6 = 1666,   /**< "1/6" */
    ORQ_TV_1_5 = 2000,   /**< "1/5" */
    ORQ_TV_1_4 = 2500,   /**< "1/4" */
    ORQ_TV_0_3S = 3000,  /**< "0\"3" */
    ORQ_TV_0_4S = 4000,  /**< "0\"4" */
    ORQ_TV_0_5S = 5000,  /**< "0\"5" */
    ORQ_TV_0_6S = 6000,  /**< "0\"6" */
    ORQ_TV_0_8S = 8000,  /**< "0\"8" */
    ORQ_TV_1S = 10000,   /**< "1\"" */
    ORQ_TV_1_3S = 13000, /**< "1\"3" */
    ORQ_TV_1_6S = 16000, /**< "1\"6" */
    ORQ_TV_2S = 20000,   /**< "2\"" */
    ORQ_TV_2_5S = 25000, /**< "2\"5" */
    ORQ_TV_3_2S = 32000, /**< "3\"2" */
    ORQ_TV_4S = 40000,   /**< "4\"" */
    ORQ_TV_5S = 50000,   /**< "5\"" */
    ORQ_TV_6S = 60000,   /**< "6\"" */
    ORQ_TV_8S = 80000,   /**< "8\"" */
    ORQ_TV_10S = 100000, /**< "10\"" */
    ORQ_TV_13S = 130000, /**< "13\"" */
    ORQ_TV_15S = 150000, /**< "15\"" */
} OrqShutterSpeed;

/** Values of ORQ_PROP_EXPOSURE_COMPENSATION and ORQ_PROP_FLASH_COMPENSATION, in stops.
 * 500 .. 505 widen exposure compensation to three stops and stand outside the order of the
 * others; flash compensation has no three-stop values. */
typedef enum OrqCompensation {
    ORQ_COMP_MINUS_2 = 0,      /**< "-2" */
    ORQ_COMP_MINUS_1_66 = 34,  /**< "-1.66" */
    ORQ_COMP_MINUS_1_33 = 67,  /**< "-1.33" */
    ORQ_COMP_MINUS_1 = 100,    /**< "-1" */
    ORQ_COMP_MINUS_0_66 = 134, /**< "-0.66" */
    ORQ_COMP_MINUS_0_33 = 167, /**< "-0.33" */
    ORQ_COMP_ZERO = 200,       /**< "0" */
    ORQ_COMP_PLUS_0_33 = 233,  /**< "+0.33" */
    ORQ_COMP_PLUS_0_66 = 266,  /**< "+0.66" */
    ORQ_COMP_PLUS_1 = 300,     /**< "+1" */
    ORQ_COMP_PLUS_1_33 = 333,  /**< "+1.33" */
    ORQ_COMP_PLUS_1_66 = 366,  /**< "+1.66" */
    ORQ_COMP_PLUS_2 = 400,     /**< "+2" */
    ORQ_COMP_MINUS_3 = 500,    /**< "-3" */
    ORQ_COMP_MINUS_2_66 = 501, /**< "-2.66" */
    ORQ_COMP_MINUS_2_33 = 502, /**< "-2.33" */
    ORQ_COMP_PLUS_2_33 = 503,  /**< "+2.33" */
    ORQ_COMP_PLUS_2_66 = 504,  /**< "+2.66" */
    ORQ_COMP_PLUS_3 = 505,     /**< "+3" */
} OrqCompensation;

/** Values of ORQ_PROP_BATTERY_LEVEL (read-only): four levels, then external power. */
typedef enum OrqBatteryLevel {
    ORQ_BATTERY_1 = 0,  /**< "1" */
    ORQ_BATTERY_2 = 1,  /**< "2" */
    ORQ_BATTERY_3 = 2,  /**< "3" */
    ORQ_BATTERY_4 = 3,  /**< "4" */
    ORQ_BATTERY_DC = 4, /**< "DC" */
} OrqBatteryLevel;

/** Values of ORQ_PROP_FOCUSING_ZONE. */
typedef enum OrqFocusingZone {
    ORQ_FOCUS_ZONE_AUTO = 0,         /**< "Auto" */
    ORQ_FOCUS_ZONE_NORMAL = 1,       /**< "Normal" */
    ORQ_FOCUS_ZONE_MACRO = 2,        /**< "Macro" */
    ORQ_FOCUS_ZONE_SUPER_MACRO = 3,  /**< "Super Macro" */
    ORQ_FOCUS_ZONE_INFINITY = 4,     /**< "Infinity" */
    ORQ_FOCUS_ZONE_MANUAL_FOCUS = 5, /**< "Manual Focus" */
} OrqFocusingZone;

/** Values of ORQ_PROP_MY_COLORS. The seven adjustments (ORQ_PROP_CONTRAST ..
 * ORQ_PROP_SKIN_TONE) are offered only while this is ORQ_MY_COLORS_CUSTOM_COLOR. */
typedef enum OrqMyColors {
    ORQ_MY_COLORS_OFF = 0,                /**< "Off" */
    ORQ_MY_COLORS_VIVID = 1,              /**< "Vivid" */
    ORQ_MY_COLORS_NEUTRAL = 2,            /**< "Neutral" */
    ORQ_MY_COLORS_SEPIA = 3,              /**< "Sepia" */
    ORQ_MY_COLORS_BW = 4,                 /**< "BW" */
    ORQ_MY_COLORS_POSITIVE_FILM = 5,      /**< "Positive Film" */
    ORQ_MY_COLORS_LIGHTER_SKIN_TONE = 6,  /**< "Lighter Skin Tone" */
    ORQ_MY_COLORS_DARKER_SKIN_TONE = 7,   /**< "Darker Skin Tone" */
    ORQ_MY_COLORS_VIVID_BLUE = 8,         /**< "Vivid Blue" */
    ORQ_MY_COLORS_VIVID_GREEN = 9,        /**< "Vivid Green" */
    ORQ_MY_COLORS_VIVID_RED = 10,         /**< "Vivid Red" */
    ORQ_MY_COLORS_CUSTOM_COLOR = 11,      /**< "Custom Color" */
    ORQ_MY_COLORS_COLOR_SWAP_MODE = 12,   /**< "ColorSwap Mode" */
    ORQ_MY_COLORS_COLOR_ACCENT_MODE = 13, /**< "ColorAccent Mode" */
} OrqMyColors;

/** Values of ORQ_PROP_CONTRAST, SHARPNESS, SATURATION, RED, GREEN, BLUE and SKIN_TONE. */
typedef enum OrqAdjustment {
    ORQ_ADJUST_MINUS_2 = 0, /**< "-2" */
    ORQ_ADJUST_MINUS_1 = 1, /**< "-1" */
    ORQ_ADJUST_ZERO = 2,    /**< "0" */
    ORQ_ADJUST_PLUS_1 = 3,  /**< "1" */
    ORQ_ADJUST_PLUS_2 = 4,  /**< "2" */
} OrqAdjustment;

/** Values of ORQ_PROP_FLASH_POWER. */
typedef enum OrqFlashPower {
    ORQ_FLASH_POWER_AUTO = 0,   /**< "Auto" */
    ORQ_FLASH_POWER_LOW = 1,    /**< "Low" */
    ORQ_FLASH_POWER_MEDIUM = 2, /**< "Medium" */
    ORQ_FLASH_POWER_HIGH = 3,   /**< "High" */
} OrqFlashPower;

#endif /**< ORQSDK_PROPS_H */
