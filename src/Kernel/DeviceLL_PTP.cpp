// The camera link: PTP transactions on the two bulk pipes, the standard and vendor operations
// built on them, and the polled camera events.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

enum : uint16_t { CONTAINER_COMMAND = 1, CONTAINER_DATA = 2, CONTAINER_RESPONSE = 3 };

constexpr size_t kContainerBuffer = 512;
constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxCommandParams = (kContainerBuffer - kHeaderSize) / 4;

void Put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void Put32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint16_t Get16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

uint32_t Get32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

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

bool RunSimple(DeviceLL& link, Simple op, PtpParams rest = {}) {
    if (!link.PtpTransactionRetry(PTP_OC_Vendor, Vendor(op.subCommand, std::move(rest)),
                                  PTP_NO_DATA, nullptr, nullptr)) {
        ORQ_LOG(ERR, "%s", op.failure);
        return false;
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Transactions

// The declared length is the camera's word; only the bytes it sends are worth memory. The buffer
// starts at 1 MiB at most and doubles as they arrive, so a camera that declares 32 MiB and sends
// a few bytes costs what it sent (or 1 MiB), never the 32 MiB.
bool DeviceLL::ReadDataPhase(std::unique_ptr<uint8_t[]>& payload, uint64_t size) {
    constexpr uint64_t kFirstStep = 1 << 20;
    uint64_t capacity = std::min(size, kFirstStep);
    uint64_t received = 0;
    do {
        // new may fail on an absurd length: that fails the transaction, it does not throw.
        std::unique_ptr<uint8_t[]> grown(new (std::nothrow) uint8_t[capacity ? capacity : 1]);
        if (!grown) {
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: can't allocate %llu bytes",
                    static_cast<unsigned long long>(capacity));
            return false;
        }
        if (received) std::memcpy(grown.get(), payload.get(), received);
        payload = std::move(grown);
        if (!usb->UsbReadExactly({payload.get() + received, capacity - received}, device)) {
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: tail data stage");
            return false;
        }
        received = capacity;
        capacity = std::min(size, capacity * 2);
    } while (received < size);
    return true;
}

bool DeviceLL::PtpReadContainer(uint8_t (&response)[512]) {
    std::memset(response, 0, sizeof response);
    if (!usb->UsbReadExactly({response, 4}, device)) {
        ORQ_LOG(ERR, "PtpReadContainer: packed length read failed");
        return false;
    }
    uint32_t length = Get32(response);
    if (length > kContainerBuffer) {
        ORQ_LOG(ERR, "PtpReadContainer: packed to long");
        return false;
    }
    if (length < kHeaderSize) {
        ORQ_LOG(ERR, "PtpReadContainer: packed length %u below header", length);
        return false;
    }
    if (!usb->UsbReadExactly({response + 4, length - 4}, device)) {
        ORQ_LOG(ERR, "PtpReadContainer: packed data read failed");
        return false;
    }
    return true;
}

bool DeviceLL::PtpTransaction(uint16_t code, PtpParams params, int32_t direction,
                              bool& generalError, PtpDataBlock* data,
                              std::vector<uint32_t>* responseParams, uint64_t dataLimit) {
    std::lock_guard<std::mutex> guard(ptpLock);
    generalError = false;
    if (!device || forceClosed) {
        // Closed under us (the cable went, or the session is being torn down).
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "PtpTransaction: device is closed");
        return false;
    }
    if (params.size() > kMaxCommandParams) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "PtpTransaction: too many parameters: %d", static_cast<int>(params.size()));
        return false;
    }

    uint8_t command[kContainerBuffer] = {};
    const uint32_t length = static_cast<uint32_t>(kHeaderSize + 4 * params.size());
    Put32(command, length);
    Put16(command + 4, CONTAINER_COMMAND);
    Put16(command + 6, code);
    Put32(command + 8, transactionId);
    for (size_t i = 0; i < params.size(); ++i) Put32(command + kHeaderSize + 4 * i, params[i]);
    // The id is spent even if the transaction fails further on.
    ++transactionId;

    if (!usb->UsbWrite({command, length}, device)) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        return false;
    }

    std::unique_ptr<uint8_t[]> payload;
    uint64_t payloadSize = 0;
    if (direction == PTP_DATA_IN) {
        uint8_t header[kHeaderSize];
        if (!usb->UsbReadExactly({header, kHeaderSize}, device)) {
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: can't read header");
            return false;
        }
        const uint32_t dataLength = Get32(header);
        const uint16_t type = Get16(header + 4);
        const uint16_t dataCode = Get16(header + 6);
        if (type == CONTAINER_DATA && dataCode != code) {
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: wrong code");
            return false;
        }
        if (type != CONTAINER_DATA) {
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: wrong CONTAINER_DATA");
            if (type != CONTAINER_RESPONSE || dataCode != PTP_RC_GeneralError) return false;
            // A general error in place of the data: take the rest of it off the pipe, so that
            // the retry starts in step.
            ORQ_LOG(ERR, "PTP_RC_GeneralError");
            generalError = true;
        }
        if (dataLength < kHeaderSize) {
            generalError = false;
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: container length %u below header", dataLength);
            return false;
        }
        payloadSize = dataLength - kHeaderSize;
        if (payloadSize > dataLimit) {
            generalError = false;
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: container length %u above limit %llu", dataLength,
                    static_cast<unsigned long long>(dataLimit));
            return false;
        }
        if (!ReadDataPhase(payload, payloadSize)) {
            generalError = false;
            return false;
        }
        // That container was the response: there is no other to read.
        if (generalError) return false;
    }

    uint8_t response[kContainerBuffer];
    if (!PtpReadContainer(response)) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        return false;
    }
    const uint16_t type = Get16(response + 4);
    const uint16_t responseCode = Get16(response + 6);
    if (type != CONTAINER_RESPONSE) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "incorrect response type %d", type);
        return false;
    }
    // Some operations answer with their own code instead of OK.
    if (responseCode != code && responseCode != PTP_RC_OK) {
        if (responseCode == PTP_RC_GeneralError) {
            generalError = true;
            ORQ_LOG(ERR, "PTP_RC_GeneralError");
        }
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "incorrect response code %d", responseCode);
        return false;
    }
    if (responseParams) {
        responseParams->clear();
        for (size_t i = 0; i < 5; ++i) responseParams->push_back(Get32(response + 12 + 4 * i));
    }
    if (data && direction == PTP_DATA_IN) {
        data->data = std::move(payload);
        data->size = payloadSize;
    }
    return true;
}

bool DeviceLL::PtpTransactionRetry(uint16_t code, PtpParams params, int32_t direction,
                                   PtpDataBlock* data, std::vector<uint32_t>* responseParams,
                                   uint64_t dataLimit) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        bool generalError = false;
        if (PtpTransaction(code, params, direction, generalError, data, responseParams,
                           dataLimit)) {
            return true;
        }
        if (!generalError) return false;
        ++generalErrors;
        ORQ_LOG(ERR, "PTP General Error. Retry %d", attempt);
        // ptpLock is free here: other threads may slip a transaction in.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// Standard operations

OrqResult DeviceLL::PTPOpenSession() {
    {
        std::lock_guard<std::mutex> guard(ptpLock);
        sessionId = 0;
        transactionId = 0;
    }
    if (!PtpTransactionRetry(PTP_OC_OpenSession, {1}, PTP_NO_DATA, nullptr, nullptr)) {
        ORQ_LOG(ERR, "PTP_OC_OpenSession failed");
        return ORQ_ERROR;
    }
    std::lock_guard<std::mutex> guard(ptpLock);
    sessionId = 1;
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
                     {static_cast<uint32_t>(position)})
               ? ORQ_OK
               : ORQ_ERROR;
}

OrqResult DeviceLL::PTPSetPlayMode() {
    return RunSimple(*this, {ORQM_Set_Play_Mode, "PTP_ORQM_Set_Play_Mode failed"}) ? ORQ_OK
                                                                                   : ORQ_ERROR;
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
    return RunSimple(*this, {ORQM_Shoot, "PTP_ORQM_Shoot failed"}) ? ORQ_OK : ORQ_ERROR;
}

OrqResult DeviceLL::PTPUpdateAEAF() {
    return RunSimple(*this, {ORQM_UpdateAEAF, "PTP_ORQM_UpdateAEAF failed"}) ? ORQ_OK : ORQ_ERROR;
}

OrqResult DeviceLL::PTPGetCamLogRequest() {
    return RunSimple(*this, {ORQM_GetCamLog, "PTP_ORQM_GetCamLog failed"}) ? ORQ_OK : ORQ_ERROR;
}

OrqResult DeviceLL::PTPMfOn() {
    return RunSimple(*this, {ORQM_MfOn, "PTP_ORQM_MfOn failed"}) ? ORQ_OK : ORQ_ERROR;
}

OrqResult DeviceLL::PTPMfOff() {
    // The camera module reports both switches under one name.
    return RunSimple(*this, {ORQM_MfOff, "PTP_ORQM_MfOn failed"}) ? ORQ_OK : ORQ_ERROR;
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
    return RunSimple(*this, {ORQM_SetCaptureMode, "PTP_ORQM_SetCaptureMode failed"}, {mode})
               ? ORQ_OK
               : ORQ_ERROR;
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
    return RunSimple(*this, {ORQM_Reset, "PTP_ORQM_Reset failed"}) ? ORQ_OK : ORQ_ERROR;
}

OrqResult DeviceLL::PTPRemoteCaptureStart() {
    return RunSimple(*this, {ORQM_RemoteCaptureStart, "PTP_ORQM_RemoteCaptureStart failed"})
               ? ORQ_OK
               : ORQ_ERROR;
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
    return RunSimple(*this, {ORQM_StartVideo, "PTP_ORQM_StartVideo failed"}) ? ORQ_OK : ORQ_ERROR;
}

OrqResult DeviceLL::PTPStopVideoRequest() {
    return RunSimple(*this, {ORQM_StopVideo, "PTP_ORQM_StopVideo failed"}) ? ORQ_OK : ORQ_ERROR;
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
    const uint64_t errorsBefore = generalErrors.load();
    if (!PtpTransactionRetry(PTP_OC_Vendor, Vendor(ORQM_GetEvents), PTP_DATA_IN, &block, nullptr)) {
        ORQ_LOG(ERR, "PTP_ORQM_GetEvents failed");
        return ORQ_ERROR;
    }
    // The camera clears its bits as it answers, even with an error: they may be gone.
    if (generalErrors.load() != errorsBefore) eventsMissed = true;
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
