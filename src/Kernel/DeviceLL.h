// The low-level half of a camera: the operations on its PTP link, the property engine, the file
// table, zoom, focus and preview. It knows nothing of the main loop or of the application; Device
// derives from it and overrides the upward virtual operations.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Kernel/PtpLink.h"
#include "Kernel/UsbLib.h"
#include "models/CameraConfig.h"
#include "orqsdk.h"

namespace orq {

struct SDKConfig;

// Keys of cameraEvents.
enum : int32_t { CAMERA_EVENT_SHOOT_FINISHED = 0, CAMERA_EVENT_ZOOM_FINISHED = 1 };

class ContProc;
class ShotTicket;
using ContProcStep = std::function<void(ContProc* self, std::chrono::milliseconds* delay,
                                        OrqResult* result, bool* again)>;

// A multi-step camera operation driven by the main loop.
class ContProc {
public:
    explicit ContProc(ContProcStep step) : step(std::move(step)) {}
    ContProcStep step;
};

// Exponential moving average of the battery voltage.
struct ema {
    double alpha = 0;  // weight of a new sample
    double value = 0;
};

class DeviceLL {
public:
    DeviceLL(UsbLib* usb, const SDKConfig* sdkConfig, std::u16string devicePath);
    virtual ~DeviceLL();

    DeviceLL(const DeviceLL&) = delete;
    DeviceLL& operator=(const DeviceLL&) = delete;

    // --- Upward operations; Device overrides them -------------------------------------------
    virtual OrqResult SetPreShootProperty();
    virtual void SetPreviewSuspended(bool suspended);
    virtual bool IsMemLogging();
    virtual void OnPropertyChanged(int propertyId);
    virtual void OnFocusChanged();
    virtual void OnPropertyListChanged();
    virtual void OnZoomChanged();
    virtual void OnZoomCompleted();
    virtual void OnShootCompleted(OrqFileInfo file);
    virtual void OnDownloadCompleted(int fileId, std::u16string path);
    virtual void OnNewPreviewFrame();
    virtual void RegisterPointer(void* pointer, std::function<void(void*)> free);
    virtual OrqResult CheckStarted();
    virtual OrqResult CheckSessionOpen();
    virtual OrqResult CheckReady();
    virtual OrqResult SendPropertyData(int propertyId);
    virtual void FreePointer(void* pointer);

    // --- Identity ---------------------------------------------------------------------------
    // Opens the USB device and selects the model profile: ORQ_OK or ORQ_ERROR.
    OrqResult OpenCamera();
    const std::u16string& DevicePath() const { return devicePath; }
    const std::u16string& DeviceName() const { return deviceName; }
    const std::u16string& SerialNumber() const { return serialNumber; }
    const std::u16string& OrqmVersion() const { return orqmVersion; }
    const CameraConfig& Config() const { return config; }
    bool IsConnected() const { return connected.load(); }
    void SetConnected(bool value) { connected.store(value); }
    // Closes the USB handle so that a blocked transfer fails at once.
    void ForceCloseUSB();

    // --- PTP link ---------------------------------------------------------------------------
    // The one entry point to the camera for every operation below.
    bool PtpTransactionRetry(uint16_t code, const PtpParams& params, int32_t direction,
                             PtpDataBlock* data, std::vector<uint32_t>* responseParams,
                             uint64_t dataLimit = PtpLink::kDataLimit) {
        return link->PtpTransactionRetry(code, params, direction, data, responseParams, dataLimit);
    }

    // --- Standard operations ----------------------------------------------------------------
    OrqResult PTPOpenSession();
    OrqResult PTPGetStorageIDs(uint32_t& storageId);
    // Fills id, size and the decoded name.
    OrqResult PTPGetObjectInfo(uint32_t handle, OrqFileInfo& file);
    OrqResult PTPGetObjectHandles(std::vector<uint32_t>& handles);
    OrqResult PTPGetFilesInfo(std::vector<OrqFileInfo>& files);
    // Bounded by the size the camera lists for the object.
    OrqResult PTPGetObject(uint32_t handle, PtpDataBlock& block);
    OrqResult PTPDeleteObject(uint32_t handle);

    // --- Vendor operations ------------------------------------------------------------------
    OrqResult PTPORQMGet(uint32_t subCommand, size_t wordCount, std::vector<uint32_t>& result);
    OrqResult PTPGetMode(uint32_t& mode);
    OrqResult PTPWaitRecMode();
    OrqResult PTPGetPropCase(uint32_t propCase, int32_t& value);
    OrqResult PTPSetPropCase(uint32_t propCase, int32_t value);
    OrqResult PTPGetZoom(int32_t& zoom);
    OrqResult PTPSetZoom(int32_t zoom);
    OrqResult PTPSetPlayMode();
    OrqResult PTPGetOrqmVersion(std::string& version);
    OrqResult PTPShoot();
    OrqResult PTPUpdateAEAF();
    OrqResult PTPGetCamLogRequest();
    OrqResult PTPMfOn();
    OrqResult PTPMfOff();
    OrqResult PTPMoveFocusTo(int32_t position, int32_t& reached);
    OrqResult PTPGetFocusParams(int32_t& position);
    OrqResult PTPGetVBat(uint32_t& current, uint32_t& maximum, uint32_t& minimum);
    OrqResult PTPSetCaptureMode(uint32_t mode);
    OrqResult PTPGetSerialNumber(std::u16string& serial);
    OrqResult PTPReset();
    OrqResult PTPRemoteCaptureStart();
    OrqResult PTPRemoteCaptureIsReady(bool& ready);
    // Five response words; word 1 non-zero: more chunks follow.
    OrqResult PTPRemoteCaptureGetData(PtpDataBlock& chunk, std::vector<uint32_t>& responseParams,
                                      uint64_t limit = PtpLink::kDataLimit);
    OrqResult PTPStartVideoRequest();
    OrqResult PTPStopVideoRequest();
    OrqResult PTPGetMemory(uint32_t address, uint32_t size, PtpDataBlock& block);
    OrqResult PTPGetVideoSettings(PtpDataBlock& block);

    // --- Camera events ----------------------------------------------------------------------
    OrqResult PTPLoadEvents();
    void ShootDirectEvent();
    bool CameraEvent(int32_t key) const;
    void ClearCameraEvent(int32_t key);

    // --- File table -------------------------------------------------------------------------
    OrqResult PTPUpdateObjectsInfo();
    std::vector<OrqFileInfo> FileTable() const;
    int32_t LatestFileId() const;
    bool FindFile(int32_t id, OrqFileInfo& file) const;

    // --- Start-up steps ---------------------------------------------------------------------
    OrqResult LoadProperties();
    OrqResult LoadOrqmVersion(const char* required);
    OrqResult LoadSerialNumber();
    OrqResult CleanMemoryCard();
    OrqResult PTPGetCamLog();
    OrqResult PTPManualFocusEnable(bool enable);

    // --- Properties -------------------------------------------------------------------------
    OrqResult GetPropertyData(int id, int* value);
    OrqResult SetPropertyData(int id, int value);
    OrqResult GetPropertyList(int** list, int* count);
    OrqResult GetPropertyDesc(int id, OrqPropertyDesc** description);
    OrqResult WriteProperty(int id);
    OrqResult ReadCameraMode();
    OrqResult ReadBatteryLevel(bool first);
    std::vector<std::pair<int, int>> BuildAvailableValues();
    // Raw value of one property case: 0 or 1.
    OrqResult PTPReadPropety(int propCase, int* raw);
    // The inter-property rules of the model's constraints, on the current values.
    bool IsPropertyAvailable(int id);
    bool IsValueAvailable(int id, int value);
    // Flash Power from its two cases; runs under the lock of LoadProperties.
    OrqResult LoadFlashPowerProp(const PropertyEntry& entry);

    // --- Capture, files, zoom, focus, preview, video ----------------------------------------
    // The shoot chain, normal or remote with direct transfer (Direct Transfer set to On, 0).
    // The caller takes ownership of the result.
    // With a ticket, the chain waits at its gate just before the Shoot command and reports there.
    // `accepted` is the shot's hold from AcceptShot; without one the chain takes its own.
    std::unique_ptr<ContProc> Shoot(std::function<void(OrqFileInfo)> onCompleted,
                                    std::shared_ptr<ShotTicket> ticket = nullptr,
                                    std::shared_ptr<void> accepted = nullptr);
    // A shot's hold on the card's next file from the moment it is accepted (queued) to the end
    // of its chain, however it ends: video does not start meanwhile. Null, logged, while a movie
    // is being recorded or its start is under way.
    std::shared_ptr<void> AcceptShot();
    OrqResult PTPDownloadFile(int32_t fileId, const std::u16string& path);
    // The folder joined with the camera's name, refused (false, logged) when the folder is
    // unknown or the name is not a plain file name of this system.
    static bool DownloadTarget(std::u16string folder, const std::u16string& name,
                               std::u16string& path);
    OrqResult PTPRemoveFile(int32_t fileId);
    std::unique_ptr<ContProc> CreateZoomProc(int32_t position);
    OrqResult UpdateZoom();
    OrqResult SetFocus(int32_t position);
    OrqResult FocusShift(int32_t shift);
    OrqResult UpdateFocusPos();
    OrqResult UpdatePreviewFrame();
    OrqResult GetPreviewFrame(void** frame, int* size);
    OrqResult PTPStartVideo();
    OrqResult PTPStopVideo(OrqFileInfo* file);
    // Snapshot of the camera's allocator in the log, when MemLogging asks for it.
    void PTPMemoryStatistics(const char* label);
    bool IsVideoRecording() const { return VideoRecording.load(); }
    int32_t GetZoom();
    int32_t GetFocus();

    // --- Zoom, focus, preview (DeviceLL_Zoom.cpp, DeviceLL_Focus.cpp, DeviceLL_Preview.cpp) ---
    // CreateZoomProc's result is owned by the caller (the main loop).
    // One PTP_ORQM_GetZoom, cut down to maxZoom.
    OrqResult ReadZoom(int32_t& step);
    void ReportZoom();
    // Moves the lens; reached may be null. focus takes the position the camera reports.
    OrqResult PTPManualFocusSet(int32_t position, int32_t* reached);
    void ReportFocus();
    int32_t NextFocusPosition(int32_t zoomStep, int32_t focusPosition, int32_t shift) const;
    static int32_t NextFocusPosition(const FocusTable& table, int32_t zoomStep,
                                     int32_t focusPosition, int32_t shift);

    static constexpr size_t kVideoSettingsWords = 22;
    using VideoSettings = std::array<uint32_t, kVideoSettingsWords>;
    struct PreviewBuffer {
        std::unique_ptr<uint8_t[]> data;
        uint64_t size = 0;  // bytes of the BMP image; the allocation may hold a few more
    };
    OrqResult GetVideoSettings(VideoSettings& target);
    OrqResult PTPGetPreviewFrame(PreviewBuffer* target);

protected:
    const SDKConfig* sdkConfig;  // owned by the camera manager

    // Identity and the wire.
    std::unique_ptr<PtpLink> link;
    std::u16string devicePath;
    std::u16string deviceName;
    CameraConfig config;
    std::u16string serialNumber;
    std::u16string orqmVersion;
    std::atomic<bool> connected{false};

    // Camera events and handed-out pointers.
    std::map<int32_t, bool> cameraEvents{{CAMERA_EVENT_SHOOT_FINISHED, false},
                                         {CAMERA_EVENT_ZOOM_FINISHED, false}};
    std::map<void*, std::function<void(void*)>> pointerTable;

    // File table.
    mutable std::mutex fileTableLock;
    std::vector<OrqFileInfo> fileTable;
    int32_t latestFileId = -1;
    int32_t NextDirectFileId = -100;
    std::map<int32_t, std::list<PtpDataBlock>> DirectTransferFiles;
    std::recursive_mutex directTransferLock;
    std::atomic<bool> VideoRecording{false};
    // Whose is the card's next new file: shots, or one start or stop of video, at a time.
    std::mutex captureLock;
    std::condition_variable captureChanged;
    int shotsAccepted = 0;           // shots queued or in their chain (AcceptShot)
    bool videoCallInFlight = false;  // during a start or stop of video
    // The shot's turn at the card once a video call under way has ended; false (logged) when
    // the call does not end or left the camera recording.
    bool AwaitCardForShot();
    // Bound of every wait for the camera to end an operation (a shot, a streamed picture, the
    // lens): past it the operation fails as a failing camera's does.
    std::chrono::milliseconds operationLimit{60000};
    // Set when an event read met a general error: the bits it carried may be lost, so a waiting
    // operation looks for its end another way.
    std::atomic<bool> eventsMissed{false};

    // Steps of the shoot chains (DeviceLL_Shoot.cpp); each returns the step's result, with
    // 'done' false while the step is to run again.
    OrqResult ShootBegin(ShotTicket* ticket);
    OrqResult ShootAwaitFile(bool& done, OrqFileInfo& file);
    // The new file of the last listing into `file`, with the completion line; false when none.
    bool TakeShotFile(OrqFileInfo& file);
    // Event reads left before a shot still waiting for SHOOT_FINISHED looks at the card.
    // Main-loop thread only.
    int readsBeforeCardLook = 0;
    OrqResult DirectShootBegin(ShotTicket* ticket);
    OrqResult DirectShootAwaitPicture(bool& done, OrqFileInfo& file);
    OrqResult DirectShootReceive(OrqFileInfo& file);
    // Copies a card file into the SDK's folder of cleaned-up pictures and reads the copy back;
    // true only when the copy on the host equals the camera's file.
    bool KeepVerifiedCopy(const OrqFileInfo& file);
    // Writes a block sequence to a file, whole or not at all; false when any step failed.
    bool WriteDownloadedFile(const std::u16string& path,
                             const std::vector<std::pair<const uint8_t*, uint64_t>>& parts);

    // Properties, zoom and focus.
    std::map<int32_t, int32_t> propertyValues;
    int32_t zoom = 0;
    int32_t focus = 0;
    std::recursive_mutex propertyLock;
    int32_t reportedZoom = 0;
    int32_t reportedFocus = 0;
    // A position the camera told: held takes it under propertyLock; true when it changed.
    bool AdoptLens(int32_t& held, int32_t position, const char* what);
    // Logs "<what> changed" and calls notify once per change of held.
    void ReportLens(const int32_t& held, int32_t& reported, const char* what,
                    void (DeviceLL::*notify)());

    // Preview. The frame buffers live in a record shared with the release function of a frame
    // handed out, so that a frame the application still holds outlives this object.
    struct PreviewFrames {
        std::mutex previewLock;
        PreviewBuffer previewBuffers[2];
        int32_t previewHeld = -1;   // buffer the application holds
        int32_t previewReady = -1;  // buffer with the newest finished frame
    };
    std::shared_ptr<PreviewFrames> preview = std::make_shared<PreviewFrames>();
    // Main-loop thread only.
    VideoSettings videoSettings{};
    int64_t videoSettingsTime = 0;
    std::vector<int32_t> previewColumnMap;
    // Smoothed battery voltage; null until the first read. Main-loop thread only.
    std::shared_ptr<ema> batteryAverage;

    // Write branches of WriteProperty for the properties that are not one case.
    OrqResult WriteFlashPower(const PropertyEntry& entry, int value);
    OrqResult WriteSubCases(const PropertyEntry& entry, int32_t cameraValue);
    OrqResult WriteManualFocus(int value);
};

}  // namespace orq
