// The standard and vendor operations built on the camera's PTP link, and the polled camera events.
#include <chrono>
#include <cstring>
#include <thread>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

// A vendor operation: the sub-command first, then its own parameters.
PtpParams Vendor(uint32_t subCommand, PtpParams rest = {}) {
    rest.insert(rest.begin(), subCommand);
    return rest;
}

// The common form of the vendor operations without data phase or answer.
struct Simple {
    uint32_t subCommand;
    const char* failure;
};

OrqResult RunSimple(DeviceLL& camera, Simple op, PtpParams rest = {}) {
    if (!camera.PtpTransactionRetry(PTP_OC_Vendor, Vendor(op.subCommand, std::move(rest)),
                                    PTP_NO_DATA, nullptr, nullptr)) {
        ORQ_LOG(ERR, "%s", op.failure);
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Standard operations

OrqResult DeviceLL::PTPOpenSession() {
    if (!link->OpenSession()) {
        ORQ_LOG(ERR, "PTP_OC_OpenSession failed");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetStorageIDs(uint32_t& storageId) {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_GetStorageIDs, {}, PTP_DATA_IN, &block, nullptr)) {
        ORQ_LOG(ERR, "PTP_OC_GetStorageIDs failed");
        return ORQ_ERROR;
    }
    // One card: the first id, whatever the count says.
    storageId = block.Word(1);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetObject(uint32_t handle, PtpDataBlock& block) {
    // Asked afresh: the object may have changed since the last listing.
    OrqFileInfo info{};
    if (PTPGetObjectInfo(handle, info) != ORQ_OK ||
        !PtpTransactionRetry(PTP_OC_GetObject, {handle}, PTP_DATA_IN, &block, nullptr, info.size)) {
        ORQ_LOG(ERR, "PTP_OC_GetObject failed");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPDeleteObject(uint32_t handle) {
    if (!PtpTransactionRetry(PTP_OC_DeleteObject, {handle, 0}, PTP_NO_DATA, nullptr, nullptr)) {
        ORQ_LOG(ERR, "PTP_OC_DeleteObject failed");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

// ---------------------------------------------------------------------------------------------
// Vendor operations

OrqResult DeviceLL::PTPORQMGet(uint32_t subCommand, size_t wordCount,
                               std::vector<uint32_t>& result) {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(subCommand), PTP_DATA_IN, &block, nullptr)) {
        ORQ_LOG(ERR, "PTPORQMGet failed: %d", static_cast<int>(subCommand));
        return ORQ_ERROR;
    }
    // The block's size is not checked: words the camera did not send read as 0.
    result.resize(wordCount);
    for (size_t i = 0; i < wordCount; ++i) result[i] = block.Word(i);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetMode(uint32_t& mode) {
    std::vector<uint32_t> words;
    if (PTPORQMGet(ORQM_GetMode, 1, words) != ORQ_OK) {
        ORQ_LOG(ERR, "PTP_ORQM_GetMode failed");
        return ORQ_ERROR;
    }
    mode = words[0];
    return ORQ_OK;
}

OrqResult DeviceLL::PTPWaitRecMode() {
    // A camera left in play mode fails its start-up rather than hold up the others; it is
    // tried again when it is plugged in again.
    constexpr auto kPace = std::chrono::milliseconds(100);
    constexpr auto kLimit = std::chrono::milliseconds(8000);
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    while (true) {
        uint32_t mode = 0;
        OrqResult result = PTPGetMode(mode);
        if (result != ORQ_OK) return result;
        if (mode == 1) return ORQ_OK;
        if (std::chrono::steady_clock::now() + kPace > deadline) {
            ORQ_LOG(ERR, "Camera is not in record mode after %d ms",
                    static_cast<int>(kLimit.count()));
            return ORQ_ERROR;
        }
        std::this_thread::sleep_for(kPace);
    }
}

OrqResult DeviceLL::PTPGetPropCase(uint32_t propCase, int32_t& value) {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_GetPropCase, {propCase, 1}), PTP_DATA_IN,
                             &block, nullptr)) {
        ORQ_LOG(ERR, "PTP_ORQM_GetPropCase failed");
        return ORQ_ERROR;
    }
    value = static_cast<int32_t>(block.Word(0));
    return ORQ_OK;
}

OrqResult DeviceLL::PTPSetPropCase(uint32_t propCase, int32_t value) {
    // The failure line names the property, which only the caller knows.
    if (!PtpTransactionRetry(PTP_OC_Vendor,
                             Vendor(ORQM_SetPropCase, {propCase, static_cast<uint32_t>(value)}),
                             PTP_NO_DATA, nullptr, nullptr)) {
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetZoom(int32_t& position) {
    std::vector<uint32_t> words;
    if (PTPORQMGet(ORQM_GetZoom, 1, words) != ORQ_OK) {
        ORQ_LOG(ERR, "PTP_ORQM_GetZoom failed");
        return ORQ_ERROR;
    }
    position = static_cast<int32_t>(words[0]);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPSetZoom(int32_t position) {
    return RunSimple(*this, {ORQM_SetZoom, "PTP_ORQM_SetZoom failed"},
                     {static_cast<uint32_t>(position)});
}

OrqResult DeviceLL::PTPSetPlayMode() {
    return RunSimple(*this, {ORQM_Set_Play_Mode, "PTP_ORQM_Set_Play_Mode failed"});
}

OrqResult DeviceLL::PTPGetOrqmVersion(std::string& version) {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_GetOrqmVersion), PTP_DATA_IN, &block,
                             nullptr)) {
        ORQ_LOG(ERR, "PTP_ORQM_GetOrqmVersion failed");
        return ORQ_ERROR;
    }
    const char* text = reinterpret_cast<const char*>(block.data.get());
    // Up to the first zero byte, and never past the block if the camera sent none.
    version.assign(text, text ? strnlen(text, static_cast<size_t>(block.size)) : 0);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPShoot() {
    return RunSimple(*this, {ORQM_Shoot, "PTP_ORQM_Shoot failed"});
}

OrqResult DeviceLL::PTPUpdateAEAF() {
    return RunSimple(*this, {ORQM_UpdateAEAF, "PTP_ORQM_UpdateAEAF failed"});
}

OrqResult DeviceLL::PTPGetCamLogRequest() {
    return RunSimple(*this, {ORQM_GetCamLog, "PTP_ORQM_GetCamLog failed"});
}

OrqResult DeviceLL::PTPMfOn() {
    return RunSimple(*this, {ORQM_MfOn, "PTP_ORQM_MfOn failed"});
}

OrqResult DeviceLL::PTPMfOff() {
    // The camera module reports both switches under one name.
    return RunSimple(*this, {ORQM_MfOff, "PTP_ORQM_MfOn failed"});
}

OrqResult DeviceLL::PTPMoveFocusTo(int32_t position, int32_t& reached) {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_Vendor,
                             Vendor(ORQM_MoveFocusTo, {static_cast<uint32_t>(position)}),
                             PTP_DATA_IN, &block, nullptr)) {
        ORQ_LOG(ERR, "PTP_ORQM_MoveFocusTo failed");
        return ORQ_ERROR;
    }
    ORQ_LOG(DEB, "PTP_ORQM_MoveFocusTo res: %d %d", static_cast<int32_t>(block.Word(0)),
            static_cast<int32_t>(block.Word(1)));
    reached = static_cast<int32_t>(block.Word(1));
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetFocusParams(int32_t& position) {
    std::vector<uint32_t> words;
    if (PTPORQMGet(ORQM_GetFocusParams, 2, words) != ORQ_OK) {
        ORQ_LOG(ERR, "PTP_ORQM_GetFocusParams failed");
        return ORQ_ERROR;
    }
    position = static_cast<int32_t>(words[1]);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetVBat(uint32_t& current, uint32_t& maximum, uint32_t& minimum) {
    std::vector<uint32_t> words;
    if (PTPORQMGet(ORQM_GetVBat, 3, words) != ORQ_OK) {
        ORQ_LOG(ERR, "PTP_ORQM_GetVBat failed");
        return ORQ_ERROR;
    }
    current = words[0];
    maximum = words[1];
    minimum = words[2];
    return ORQ_OK;
}

OrqResult DeviceLL::PTPSetCaptureMode(uint32_t mode) {
    return RunSimple(*this, {ORQM_SetCaptureMode, "PTP_ORQM_SetCaptureMode failed"}, {mode});
}

OrqResult DeviceLL::PTPGetSerialNumber(std::u16string& serial) {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_GetSerialNumber), PTP_DATA_IN, &block,
                             nullptr)) {
        ORQ_LOG(ERR, "PTP_ORQM_GetSerialNumber failed");
        return ORQ_ERROR;
    }
    // A 16-bit text of which only the low byte of each unit is kept.
    serial.clear();
    for (uint64_t i = 0; i < block.size; i += 2) serial.push_back(block.data[i]);
    return ORQ_OK;
}

OrqResult DeviceLL::PTPReset() {
    return RunSimple(*this, {ORQM_Reset, "PTP_ORQM_Reset failed"});
}

OrqResult DeviceLL::PTPRemoteCaptureStart() {
    return RunSimple(*this, {ORQM_RemoteCaptureStart, "PTP_ORQM_RemoteCaptureStart failed"});
}

OrqResult DeviceLL::PTPRemoteCaptureIsReady(bool& ready) {
    std::vector<uint32_t> response;
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_RemoteCaptureIsReady), PTP_NO_DATA, nullptr,
                             &response)) {
        ORQ_LOG(ERR, "PTP_ORQM_RemoteCaptureIsReady failed");
        return ORQ_ERROR;
    }
    ready = response[0] != 0;
    return ORQ_OK;
}

OrqResult DeviceLL::PTPRemoteCaptureGetData(PtpDataBlock& chunk,
                                            std::vector<uint32_t>& responseParams, uint64_t limit) {
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_RemoteCaptureGetData, {1}), PTP_DATA_IN,
                             &chunk, &responseParams, limit)) {
        ORQ_LOG(ERR, "PTP_ORQM_RemoteCaptureGetData failed");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPStartVideoRequest() {
    return RunSimple(*this, {ORQM_StartVideo, "PTP_ORQM_StartVideo failed"});
}

OrqResult DeviceLL::PTPStopVideoRequest() {
    return RunSimple(*this, {ORQM_StopVideo, "PTP_ORQM_StopVideo failed"});
}

OrqResult DeviceLL::PTPGetMemory(uint32_t address, uint32_t size, PtpDataBlock& block) {
    // Never more than was asked for.
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(CHDK_GetMemory, {address, size}), PTP_DATA_IN,
                             &block, nullptr, size)) {
        ORQ_LOG(ERR, "PTP_CHDK_GetMemory failed");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPGetVideoSettings(PtpDataBlock& block) {
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(CHDK_GetVideoSettings), PTP_DATA_IN, &block,
                             nullptr)) {
        ORQ_LOG(ERR, "PTP_CHDK_GetVideoSettings failed");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

// ---------------------------------------------------------------------------------------------
// Camera events

OrqResult DeviceLL::PTPLoadEvents() {
    PtpDataBlock block;
    const uint64_t errorsBefore = link->GeneralErrors();
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_GetEvents), PTP_DATA_IN, &block, nullptr)) {
        ORQ_LOG(ERR, "PTP_ORQM_GetEvents failed");
        return ORQ_ERROR;
    }
    // The camera clears its bits as it answers, even with an error: they may be gone.
    if (link->GeneralErrors() != errorsBefore) eventsMissed = true;
    // Only ever set here; the operation that waits clears its flag before it starts.
    const uint32_t bits = block.size ? block.data[0] : 0;
    if (bits & SHOOT_FINISHED) cameraEvents[CAMERA_EVENT_SHOOT_FINISHED] = true;
    if (bits & ZOOM_FINISHED) cameraEvents[CAMERA_EVENT_ZOOM_FINISHED] = true;
    return ORQ_OK;
}

void DeviceLL::ShootDirectEvent() {
    PtpDataBlock block;
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_GetEvents), PTP_DATA_IN, &block, nullptr)) {
        ORQ_LOG(ERR, "PTP_ORQM_GetEvents failed");
        return;
    }
    static const struct {
        uint32_t mask;
        const char* name;
    } kDirectEvents[] = {
        {EVENT_RAW_AVAILABLE, "EVENT_RAW_AVAILABLE"},
        {EVENT_REMOTE_AVAILABLE, "EVENT_REMOTE_AVAILABLE"},
        {EVENT_REMOTE_TIMEOUT, "EVENT_REMOTE_TIMEOUT"},
        {EVENT_GET_JPEG_CHUNK, "EVENT_GET_JPEG_CHUNK"},
        {EVENT_GET_JPEG_TIMEOUT, "EVENT_GET_JPEG_TIMEOUT"},
        {EVENT_LAST_JPEG_CHUNK, "EVENT_LAST_JPEG_CHUNK"},
    };
    const uint32_t bits = block.Word(0);
    for (const auto& event : kDirectEvents) {
        if (bits & event.mask) ORQ_LOG(DEB, "ShootDirectEvent: %s", event.name);
    }
}

bool DeviceLL::CameraEvent(int32_t key) const {
    auto found = cameraEvents.find(key);
    return found != cameraEvents.end() && found->second;
}

void DeviceLL::ClearCameraEvent(int32_t key) {
    cameraEvents[key] = false;
}

}  // namespace orq
