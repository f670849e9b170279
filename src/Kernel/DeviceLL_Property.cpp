// The property engine: the table of current SDK values, its translation to and from the camera's
// raw values, the checks a new value passes, what is on offer under the model's constraints, the
// camera mode and the battery level.
#include <memory>

#include "Kernel/DeviceLL.h"
#include "Logger.h"
#include "models/PropertyNames.h"

namespace orq {

namespace {

constexpr const char* kUnsupportedMode =
    "Unsupported camera mode: %d. Check camera mode (menu or mode wheel). Use A, P, M, Av or Tv "
    "mode.";

// 2/51: the weight of a new voltage sample, as in a 50-sample moving average.
constexpr double kBatteryAlpha = 2.0 / 51.0;
// Battery Level's value for a camera on external power.
constexpr int kBatteryLevelDC = 4;
// The level loop climbs by a quarter of the range; this bounds it for a camera that reports a
// nonsensical voltage far above its full reading.
constexpr int kMaxBatteryLevel = 1 << 16;

}  // namespace

OrqResult DeviceLL::PTPReadPropety(int propCase, int* raw) {
    int32_t value = 0;
    // The wrapper has logged the failure.
    if (PTPGetPropCase(static_cast<uint32_t>(propCase), value) != ORQ_OK) return ORQ_ERROR;
    *raw = value;
    return ORQ_OK;
}

OrqResult DeviceLL::LoadProperties() {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    bool readBattery = false;
    for (const auto& [id, entry] : config.properties) {
        switch (id) {
            case ORQ_PROP_BATTERY_LEVEL:
                readBattery = true;
                continue;
            case ORQ_PROP_FLASH_POWER: {
                OrqResult result = LoadFlashPowerProp(entry);
                if (result != ORQ_OK) {
                    ORQ_LOG(ERR, "LoadFlashPowerProp failed");
                    return result;
                }
                continue;
            }
            case ORQ_PROP_DIRECT_TRANSFER:
            case ORQ_PROP_MANUAL_FOCUS_MODE:
                // Known only to the SDK; both start Off.
                propertyValues[id] = 1;
                continue;
            default:
                break;
        }
        int raw = 0;
        OrqResult result = PTPReadPropety(entry.propCase, &raw);
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "PTPReadPropety failed");
            return result;
        }
        const PropertyValue* known = entry.FromCamera(raw);
        if (!known) {
            if (id == ORQ_PROP_SHOOTING_MODE) {
                ORQ_LOG(ERR, kUnsupportedMode, raw);
            } else {
                ORQ_LOG(ERR, "Unknown property value: %d %d", id, raw);
            }
            return ORQ_ERROR;
        }
        propertyValues[id] = known->value;
    }

    if (readBattery) {
        OrqResult result = ReadBatteryLevel(true);
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "ReadBatteryLevel failed");
            return result;
        }
    }

    if (config.maxZoom == 0) {
        zoom = 0;
    } else {
        int32_t step = 0;
        OrqResult result = ReadZoom(step);
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "can't load zoom");
            return result;
        }
        zoom = step;
    }
    // The first zoom report goes out whatever the step.
    reportedZoom = -1;
    return ORQ_OK;
}

bool DeviceLL::IsPropertyAvailable(int id) {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    // A value not loaded reads as 0 (and is entered so).
    auto current = [this](int key) { return propertyValues[key]; };
    if (id == ORQ_PROP_AV && config.HasConstraint(CONSTRAINT_AV_BY_MODE)) {
        int mode = current(ORQ_PROP_SHOOTING_MODE);
        if (mode != 2 && mode != 3) return false;
    }
    if (id == ORQ_PROP_TV && config.HasConstraint(CONSTRAINT_TV_BY_MODE)) {
        int mode = current(ORQ_PROP_SHOOTING_MODE);
        if (mode != 2 && mode != 4) return false;
    }
    if (id >= ORQ_PROP_CONTRAST && id <= ORQ_PROP_SKIN_TONE &&
        config.HasConstraint(CONSTRAINT_COLOR_ADJUST_BY_MY_COLORS)) {
        if (current(ORQ_PROP_MY_COLORS) != 11) return false;
    }
    return true;
}

bool DeviceLL::IsValueAvailable(int id, int value) {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    if (!IsPropertyAvailable(id)) return false;
    // Superfine is not offered at the largest image size.
    if (id == ORQ_PROP_JPEG_QUALITY && value == 0 &&
        config.HasConstraint(CONSTRAINT_QUALITY_BY_SIZE) &&
        propertyValues[ORQ_PROP_IMAGE_SIZE] == 0) {
        return false;
    }
    return true;
}

std::vector<std::pair<int, int>> DeviceLL::BuildAvailableValues() {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    // Built on every poll: sized once, and a property whose mode rules it out skipped whole.
    size_t count = 0;
    for (const auto& item : config.properties) count += item.second.values.size();
    std::vector<std::pair<int, int>> available;
    available.reserve(count);
    for (const auto& [id, entry] : config.properties) {
        if (entry.values.empty() || !IsPropertyAvailable(id)) continue;
        for (const PropertyValue& record : entry.values) {
            if (IsValueAvailable(id, record.value)) available.emplace_back(id, record.value);
        }
    }
    return available;
}

OrqResult DeviceLL::SetPropertyData(int id, int value) {
    std::vector<int> dependent;
    bool listChanged = false;
    {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        OrqResult result = CheckStarted();
        if (result != ORQ_OK) return result;
        std::vector<std::pair<int, int>> before = BuildAvailableValues();

        const PropertyEntry* entry = config.Find(id);
        if (propertyValues.count(id) == 0 || !entry) {
            ORQ_LOG(ERR, "Unknown property: %d", id);
            return ORQ_UNKNOWN_PROPERTY;
        }
        if (!IsPropertyWritable(id)) {
            ORQ_LOG(ERR, "failed to set read only property");
            return ORQ_ERROR;
        }
        if (!entry->FromSdk(value)) {
            ORQ_LOG(ERR, "Unsupported property value: %d %d", id, value);
            return ORQ_PROPERTY_CONSTRAINT;
        }
        if (!IsValueAvailable(id, value)) {
            ORQ_LOG(ERR, "Property set constraint failed: %d %d", id, value);
            return ORQ_PROPERTY_CONSTRAINT;
        }
        // Only the mode is spared a rewrite: the camera may have drifted from any other value.
        if (id == ORQ_PROP_SHOOTING_MODE && propertyValues[id] == value) return ORQ_OK;

        propertyValues[id] = value;
        // Superfine cannot stay at the largest size: the quality steps down with it.
        if (id == ORQ_PROP_IMAGE_SIZE && value == 0 &&
            config.HasConstraint(CONSTRAINT_QUALITY_BY_SIZE) &&
            propertyValues[ORQ_PROP_JPEG_QUALITY] == 0) {
            propertyValues[ORQ_PROP_JPEG_QUALITY] = 1;
            dependent.push_back(ORQ_PROP_JPEG_QUALITY);
        }
        for (int other : dependent) {
            result = SendPropertyData(other);
            if (result != ORQ_OK) return result;
        }
        result = SendPropertyData(id);
        if (result != ORQ_OK) return result;
        listChanged = BuildAvailableValues() != before;
    }
    // The application knows the value it set; only the knock-on changes are reported.
    for (int other : dependent) {
        ORQ_LOG(INF, "Property changed: %d", other);
        OnPropertyChanged(other);
    }
    if (listChanged) {
        ORQ_LOG(INF, "Property list changed");
        OnPropertyListChanged();
    }
    return ORQ_OK;
}

OrqResult DeviceLL::GetPropertyData(int id, int* value) {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    OrqResult result = CheckReady();
    if (result != ORQ_OK) return result;
    auto found = propertyValues.find(id);
    if (found == propertyValues.end()) {
        ORQ_LOG(ERR, "Unknown property: %d", id);
        return ORQ_UNKNOWN_PROPERTY;
    }
    if (!value) return ORQ_ERROR;
    *value = found->second;
    return ORQ_OK;
}

OrqResult DeviceLL::GetPropertyList(int** list, int* count) {
    std::vector<int> ids;
    {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        for (const auto& item : config.properties) {
            if (IsPropertyAvailable(item.first)) ids.push_back(item.first);
        }
    }
    if (!list || !count) return ORQ_ERROR;
    // An empty list still gets an array of its own, for OrqFree.
    std::unique_ptr<int[]> array(new int[ids.empty() ? 1 : ids.size()]);
    for (size_t i = 0; i < ids.size(); ++i) array[i] = ids[i];
    RegisterPointer(array.get(), [](void* pointer) { delete[] static_cast<int*>(pointer); });
    *count = static_cast<int>(ids.size());
    *list = array.release();
    return ORQ_OK;
}

OrqResult DeviceLL::GetPropertyDesc(int id, OrqPropertyDesc** description) {
    std::vector<int32_t> values;
    std::vector<OrqSize> sizes;
    bool readOnly = false;
    {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        ORQ_LOG(DEB, "GetPropertyDesc");
        const PropertyEntry* entry = config.Find(id);
        if (!entry) {
            ORQ_LOG(ERR, "GetPropertyDesc: Property not found: %d", id);
            return ORQ_UNKNOWN_PROPERTY;
        }
        for (const PropertyValue& record : entry->values) {
            if (!IsValueAvailable(id, record.value)) continue;
            values.push_back(record.value);
            if (record.hasSize) sizes.push_back(OrqSize{record.width, record.height});
        }
        readOnly = !IsPropertyWritable(id);
    }
    if (!description) return ORQ_ERROR;

    auto desc = std::make_unique<OrqPropertyDesc>();
    desc->values = new int32_t[values.empty() ? 1 : values.size()];
    std::copy(values.begin(), values.end(), desc->values);
    desc->sizes = nullptr;
    if (!sizes.empty()) {
        desc->sizes = new OrqSize[sizes.size()];
        std::copy(sizes.begin(), sizes.end(), desc->sizes);
    }
    desc->count = static_cast<int32_t>(values.size());
    desc->readOnly = readOnly ? 1 : 0;
    auto release = [](void* pointer) {
        auto* record = static_cast<OrqPropertyDesc*>(pointer);
        delete[] record->values;
        delete[] record->sizes;
        delete record;
    };
    RegisterPointer(desc.get(), release);
    *description = desc.release();
    return ORQ_OK;
}

OrqResult DeviceLL::WriteProperty(int id) {
    int value = 0;
    {
        // Sends whatever is current when the main loop gets here.
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        auto found = propertyValues.find(id);
        if (found == propertyValues.end()) {
            ORQ_LOG(ERR, "Unknown property: %d", id);
            return ORQ_UNKNOWN_PROPERTY;
        }
        value = found->second;
    }
    // The profile is fixed after OpenCamera and needs no lock.
    const PropertyEntry* entry = config.Find(id);
    if (!entry) {
        ORQ_LOG(ERR, "Unknown property: %d", id);
        return ORQ_UNKNOWN_PROPERTY;
    }
    if (entry->kind == PropertyKind::FlashPower) return WriteFlashPower(*entry, value);
    if (entry->kind == PropertyKind::ManualFocus) return WriteManualFocus(value);
    // A property without a case lives in the SDK alone.
    if (entry->propCase < 0) return ORQ_OK;

    const PropertyValue* record = entry->FromSdk(value);
    if (!record) {
        ORQ_LOG(ERR, "Unsupported property value: %d %d", id, value);
        return ORQ_ERROR;
    }
    if (entry->kind == PropertyKind::CaptureMode) {
        // The wrapper logs the failure line.
        if (PTPSetCaptureMode(static_cast<uint32_t>(record->cameraValue)) != ORQ_OK) {
            return ORQ_ERROR;
        }
        return ORQ_OK;
    }
    if (PTPSetPropCase(static_cast<uint32_t>(entry->propCase), record->cameraValue) != ORQ_OK) {
        ORQ_LOG(ERR, "PTP_ORQM_SetPropCase failed: %d %d %d", id, entry->propCase,
                record->cameraValue);
        return ORQ_ERROR;
    }
    return WriteSubCases(*entry, record->cameraValue);
}

OrqResult DeviceLL::ReadCameraMode() {
    bool changed = false;
    {
        // Held across the read, so that a set of the mode waits for it.
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        auto stored = propertyValues.find(ORQ_PROP_SHOOTING_MODE);
        const PropertyEntry* entry = config.Find(ORQ_PROP_SHOOTING_MODE);
        if (stored == propertyValues.end() || !entry) return ORQ_OK;
        int raw = 0;
        OrqResult result = PTPReadPropety(entry->propCase, &raw);
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "PTPReadPropety failed");
            return result;
        }
        const PropertyValue* known = entry->FromCamera(raw);
        if (!known) {
            ORQ_LOG(ERR, kUnsupportedMode, raw);
            return ORQ_ERROR;
        }
        if (known->value != stored->second) {
            ORQ_LOG(INF, "Camera mode changed to %d", known->value);
            stored->second = known->value;
            changed = true;
        }
    }
    if (changed) OnPropertyChanged(ORQ_PROP_SHOOTING_MODE);
    return ORQ_OK;
}

OrqResult DeviceLL::ReadBatteryLevel(bool first) {
    if (!config.Has(ORQ_PROP_BATTERY_LEVEL)) return ORQ_OK;

    uint32_t presentWord = 0, fullWord = 0, emptyWord = 0;
    // The wrapper logs the failure line.
    if (PTPGetVBat(presentWord, fullWord, emptyWord) != ORQ_OK) return ORQ_ERROR;
    const auto present = static_cast<int32_t>(presentWord);
    const auto full = static_cast<int32_t>(fullWord);
    const auto empty = static_cast<int32_t>(emptyWord);

    if (first || !batteryAverage) {
        auto average = std::make_shared<ema>();
        average->alpha = kBatteryAlpha;
        average->value = present;
        batteryAverage = average;
    }
    ema& average = *batteryAverage;
    average.value = (1 - average.alpha) * average.value + average.alpha * present;

    int level = 0;
    if (present > full) {
        level = kBatteryLevelDC;
    } else {
        // Wraps as 32-bit arithmetic does on the camera's side rather than overflowing.
        const double range = static_cast<int32_t>(fullWord - emptyWord);
        const double cutoff = range * 0.2 + empty;
        // One low sample is enough: the raw reading decides, not the average.
        if (cutoff > present) return ORQ_BATTERY_LOW;
        const double step = range * 0.25;
        double threshold = cutoff + step;
        // With a range of 0 or less the thresholds would never rise.
        while (step > 0 && average.value > threshold && level < kMaxBatteryLevel) {
            ++level;
            threshold += step;
        }
    }

    bool changed = false;
    {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        auto stored = propertyValues.find(ORQ_PROP_BATTERY_LEVEL);
        if (first || stored == propertyValues.end()) {
            propertyValues[ORQ_PROP_BATTERY_LEVEL] = level;
        } else if (stored->second != level) {
            stored->second = level;
            changed = true;
        }
    }
    if (changed) OnPropertyChanged(ORQ_PROP_BATTERY_LEVEL);
    return ORQ_OK;
}

}  // namespace orq
