#include "models/CameraConfig.h"

#include <algorithm>
#include <cmath>

#include "models/ModelData.h"

namespace orq {

uint32_t CameraConfig::FocalHundredths(int32_t zoomStep) const {
    if (lens.wideMm <= 0 || lens.teleMm < lens.wideMm) return 0;
    const int32_t step = std::clamp(zoomStep, 0, std::max(maxZoom, 0));
    const double part = maxZoom > 0 ? static_cast<double>(step) / maxZoom : 0.0;
    return static_cast<uint32_t>(
        std::lround(lens.wideMm * std::pow(lens.teleMm / lens.wideMm, part) * 100.0));
}

uint32_t CameraConfig::Focal35mm(int32_t zoomStep) const {
    return static_cast<uint32_t>(
        std::lround(FocalHundredths(zoomStep) / 100.0 * std::max(lens.factor35mm, 0.0)));
}

const PropertyValue* PropertyEntry::FromCamera(int32_t cameraValue) const {
    for (const PropertyValue& record : values) {
        if (record.cameraValue == cameraValue) return &record;
    }
    return nullptr;
}

const PropertyValue* PropertyEntry::FromSdk(int32_t value) const {
    for (const PropertyValue& record : values) {
        if (record.value == value) return &record;
    }
    return nullptr;
}

const PropertyEntry* CameraConfig::Find(int32_t propertyId) const {
    auto it = properties.find(propertyId);
    return it == properties.end() ? nullptr : &it->second;
}

bool CameraConfig::ToCameraValue(int32_t propertyId, int32_t value, int32_t& cameraValue) const {
    const PropertyEntry* entry = Find(propertyId);
    const PropertyValue* record = entry ? entry->FromSdk(value) : nullptr;
    if (!record) return false;
    cameraValue = record->cameraValue;
    return true;
}

bool CameraConfig::ToSdkValue(int32_t propertyId, int32_t cameraValue, int32_t& value) const {
    const PropertyEntry* entry = Find(propertyId);
    const PropertyValue* record = entry ? entry->FromCamera(cameraValue) : nullptr;
    if (!record) return false;
    value = record->value;
    return true;
}

const std::vector<CameraConfig>& CameraConfigTable() {
    // The order decides which model wins when a product string holds two codes.
    static const std::vector<CameraConfig> table = {
        models::MakeA1400(), models::MakeA2200(), models::MakeA4000(), models::MakeA495(),
        models::MakeA800(),  models::MakeA810(),  models::MakeG15(),   models::MakeIXUS145(),
        models::MakeSX130(), models::MakeSX150(), models::MakeSX160(), models::MakeSX170(),
        models::MakeSX40(),  models::MakeSX500(), models::MakeSX510(),
    };
    return table;
}

namespace {
// Builds the table while the library loads, so that no export ever pays for it or races on it.
[[maybe_unused]] const bool tableBuiltAtLoad = !CameraConfigTable().empty();
}  // namespace

const CameraConfig* FindCameraConfig(const std::u16string& productString) {
    for (const CameraConfig& model : CameraConfigTable()) {
        if (productString.find(model.name) != std::u16string::npos) return &model;
    }
    return nullptr;
}

bool FindCameraConfig(const std::u16string& productString, CameraConfig& target) {
    const CameraConfig* model = FindCameraConfig(productString);
    if (!model) return false;
    target = *model;
    return true;
}

}  // namespace orq
