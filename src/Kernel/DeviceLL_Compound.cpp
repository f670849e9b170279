// Properties that are not one case on the camera: Flash Power, kept in two cases whose meaning
// depends on each other; the properties written to several cases at once; Manual Focus Mode,
// which is a switch of the focus code.
#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

// Flash Power against the camera's two cases: Auto is adjust mode 0 (the manual output is left
// as it is); Low, Medium and High are adjust mode 1 with manual output 0, 1 and 2.
constexpr int kFlashAuto = 0;
constexpr int kFlashHigh = 3;
constexpr int32_t kAdjustAuto = 0;
constexpr int32_t kAdjustManual = 1;
constexpr int32_t kMaxManualOutput = 2;

}  // namespace

OrqResult DeviceLL::LoadFlashPowerProp(const PropertyEntry& entry) {
    int adjustMode = 0;
    OrqResult result = PTPReadPropety(entry.subCase1, &adjustMode);
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "LoadFlashPowerProp: PTPReadPropety 1 failed");
        return result;
    }
    if (adjustMode == kAdjustAuto) {
        propertyValues[ORQ_PROP_FLASH_POWER] = kFlashAuto;
        return ORQ_OK;
    }
    if (adjustMode != kAdjustManual) {
        ORQ_LOG(ERR, "Unknown value of FlashAdjustMode property");
        return ORQ_ERROR;
    }
    int output = 0;
    result = PTPReadPropety(entry.subCase2, &output);
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "LoadFlashPowerProp: PTPReadPropety 2 failed");
        return result;
    }
    if (output < 0 || output > kMaxManualOutput) {
        ORQ_LOG(ERR, "Unknown value of FlashManualOutput property");
        return ORQ_ERROR;
    }
    propertyValues[ORQ_PROP_FLASH_POWER] = output + 1;
    return ORQ_OK;
}

OrqResult DeviceLL::WriteFlashPower(const PropertyEntry& entry, int value) {
    if (value < kFlashAuto || value > kFlashHigh) {
        ORQ_LOG(ERR, "unknown FlashPower value");
        return ORQ_ERROR;
    }
    const int32_t adjustMode = value == kFlashAuto ? kAdjustAuto : kAdjustManual;
    if (PTPSetPropCase(static_cast<uint32_t>(entry.subCase1), adjustMode) != ORQ_OK) {
        ORQ_LOG(ERR, "PTP_ORQM_SetPropCase failed (FlashPower, FlashAdjustMod)");
        return ORQ_ERROR;
    }
    if (value == kFlashAuto) return ORQ_OK;
    if (PTPSetPropCase(static_cast<uint32_t>(entry.subCase2), value - 1) != ORQ_OK) {
        ORQ_LOG(ERR, "PTP_ORQM_SetPropCase failed (FlashPower, FlashManualOutput)");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::WriteSubCases(const PropertyEntry& entry, int32_t cameraValue) {
    // No undoing: a failure leaves the earlier cases changed, and the loop ends anyway.
    switch (entry.kind) {
        case PropertyKind::SubProperty:
            if (PTPSetPropCase(static_cast<uint32_t>(entry.subCase1), cameraValue) != ORQ_OK) {
                ORQ_LOG(ERR, "PTP_ORQM_SetPropCase failed (SubPropery)");
                return ORQ_ERROR;
            }
            return ORQ_OK;
        case PropertyKind::SubProperty2:
            if (PTPSetPropCase(static_cast<uint32_t>(entry.subCase1), cameraValue) != ORQ_OK) {
                ORQ_LOG(ERR, "PTP_ORQM_SetPropCase failed (SubPropery2 - 1)");
                return ORQ_ERROR;
            }
            if (PTPSetPropCase(static_cast<uint32_t>(entry.subCase2), cameraValue) != ORQ_OK) {
                ORQ_LOG(ERR, "PTP_ORQM_SetPropCase failed (SubPropery2 - 2)");
                return ORQ_ERROR;
            }
            return ORQ_OK;
        default:
            return ORQ_OK;
    }
}

OrqResult DeviceLL::WriteManualFocus(int value) {
    // The camera is not asked: the property is what the SDK last requested.
    OrqResult result = PTPManualFocusEnable(value == 0);
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPManualFocusEnable failed: %d", value);
        return result;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPManualFocusEnable(bool enable) {
    ORQ_LOG(DEB, "PTPManualFocusEnable: %s", enable ? "On" : "Off");
    // Either wrapper logs the failure line.
    return enable ? PTPMfOn() : PTPMfOff();
}

}  // namespace orq
