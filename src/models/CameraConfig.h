// The profile of a camera model: which properties it offers, on which property cases of the
// on-camera module they live, how each SDK value is spelled on the camera, how far it zooms and
// where manual focus may stop. Nothing of this is discovered at run time.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "orqsdk.h"

namespace orq {

// How a value is written to the camera.
enum class PropertyKind : int32_t {
    Plain = 0,         // propCase only (nothing when propCase is negative)
    SubProperty = 1,   // propCase, then subCase1, same camera value
    SubProperty2 = 2,  // propCase, subCase1, subCase2, same camera value
    FlashPower = 3,    // subCase1 = flash adjust mode, subCase2 = manual flash output
    CaptureMode = 4,   // written by SetCaptureMode; propCase is for reading
    ManualFocus = 5,   // switched through the focus code
};

// Inter-property rules; a model applies those whose number is in its constraints.
enum Constraint : int32_t {
    // JPEG Quality 0 is hidden while Image Size is 0; setting Image Size 0 moves quality 0 to 1.
    CONSTRAINT_QUALITY_BY_SIZE = 0,
    // Av only in Shooting Mode 2 or 3.
    CONSTRAINT_AV_BY_MODE = 1,
    // Tv only in Shooting Mode 2 or 4.
    CONSTRAINT_TV_BY_MODE = 2,
    // Contrast .. Skin Tone (16-22) only while My Colors is 11.
    CONSTRAINT_COLOR_ADJUST_BY_MY_COLORS = 3,
};

// One legal value: five 32-bit words. width and height mean something only when hasSize.
struct PropertyValue {
    int32_t value = 0;        // the SDK's value
    int32_t cameraValue = 0;  // raw value of the property case, in the form the camera uses
    bool hasSize = false;     // true on Image Size records only
    int32_t width = 0;
    int32_t height = 0;
};
static_assert(sizeof(PropertyValue) == 20, "PropertyValue is five 32-bit words");

struct PropertyEntry {
    int32_t propCase = -1;              // -1: the property has no case of its own
    std::vector<PropertyValue> values;  // in the order offered to the application
    PropertyKind kind = PropertyKind::Plain;
    int32_t subCase1 = 0;
    int32_t subCase2 = 0;

    // Translation stops at the first match, so where a value is listed twice the first record
    // is the one written, and either raw value reads back as it. Null when nothing matches.
    const PropertyValue* FromCamera(int32_t cameraValue) const;
    const PropertyValue* FromSdk(int32_t value) const;
};

using FocusTable = std::vector<std::vector<int32_t>>;

// The zoom lens: focal lengths at zoom step 0 and at maxZoom, and the factor to the focal length
// of the same view on 35 mm film. All zero: the profile gives no lens.
struct Lens {
    double wideMm = 0;
    double teleMm = 0;
    double factor35mm = 0;
};

// The maker word our profiles' pictures carry (Exif Make).
constexpr const char* kMakerWord = "Orqwerk";

struct CameraConfig {
    std::u16string name;  // model code looked for in the USB product string
    std::map<int32_t, PropertyEntry> properties;
    std::set<int32_t> constraints;
    int32_t maxZoom = 0;  // zoom steps run 0 .. maxZoom
    bool videoSupported = false;
    FocusTable focusTable;  // list z: manual focus stops at zoom step z, strictly ascending
    Lens lens;

    // The focal length at a zoom step (clamped to 0 .. maxZoom), in hundredths of a millimetre,
    // and its 35 mm equivalent in whole millimetres; 0 for both where the profile has no lens.
    // The steps divide the range in equal ratios, as a zoom's steps feel equal to the eye.
    uint32_t FocalHundredths(int32_t zoomStep) const;
    uint32_t Focal35mm(int32_t zoomStep) const;

    bool Has(int32_t propertyId) const { return properties.count(propertyId) != 0; }
    bool HasConstraint(int32_t constraint) const { return constraints.count(constraint) != 0; }
    // Null when the model lacks the property.
    const PropertyEntry* Find(int32_t propertyId) const;

    // The raw camera value that stands for an SDK value, and back; false when the model lacks
    // the property or has no such record.
    bool ToCameraValue(int32_t propertyId, int32_t value, int32_t& cameraValue) const;
    bool ToSdkValue(int32_t propertyId, int32_t cameraValue, int32_t& value) const;
};

// All supported models in their fixed order. Built once at library load, never changed.
const std::vector<CameraConfig>& CameraConfigTable();

// The first model, in table order, whose code occurs in the product string (case-sensitive,
// anywhere). Null when none does.
const CameraConfig* FindCameraConfig(const std::u16string& productString);

// As above, copying the chosen profile over target; target is left alone when nothing matches.
bool FindCameraConfig(const std::u16string& productString, CameraConfig& target);

}  // namespace orq
