// What both orqcam suites read off a virtual camera after a command, through the tool's own
// loaded SDK.
#pragma once

#include <string>

#include "Session.h"
#include "models/CameraConfig.h"

namespace orqcam {

constexpr uint16_t kVendorOperation = 0x9999;

// The SDK value that a virtual camera of `model` itself holds for a property, from its raw case;
// negative when the camera has no such value.
inline int ValueOnCamera(OrqSimCamera camera, const std::string& model, int property) {
    const std::string product = "Orq Camera " + model;
    const orq::CameraConfig* profile =
        orq::FindCameraConfig(std::u16string(product.begin(), product.end()));
    const orq::PropertyEntry* entry = profile ? profile->Find(property) : nullptr;
    int32_t raw = 0;
    if (!entry || sdk.SimGetPropCase(camera, entry->propCase, &raw) != ORQ_OK) return -999;
    const orq::PropertyValue* value = entry->FromCamera(raw);
    return value ? value->value : -998;
}

}  // namespace orqcam
