// One camera: its main-loop thread, message queue, multi-step operations and events, on top of
// the low-level DeviceLL.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Event.h"
#include "Kernel/DeviceLL.h"
#include "MainLoopMsg.h"

namespace orq {

class Device : public DeviceLL {
public:
    Device(UsbLib* usb, const SDKConfig* sdkConfig, std::u16string devicePath, int32_t id);
    ~Device() override;

    // Opens the camera, starts the main-loop thread and waits for its start-up to end.
    OrqResult Initialise();
    void Post(std::shared_ptr<MainLoopMsg_Base> message);

    int32_t Id() const { return id; }
    bool IsSessionOpen() const { return sessionOpen->load(); }
    // Shared with the session record, so that closing a session needs no manager lock.
    std::shared_ptr<std::atomic<bool>> SessionFlag() const { return sessionOpen; }
    OrqCameraInfo CameraInfo(uint32_t publicId) const;

    // Upward operations.
    OrqResult SetPreShootProperty() override;
    void SetPreviewSuspended(bool suspended) override;
    bool IsMemLogging() override;
    void OnPropertyChanged(int propertyId) override;
    void OnFocusChanged() override;
    void OnPropertyListChanged() override;
    void OnZoomChanged() override;
    void OnZoomCompleted() override;
    void OnShootCompleted(OrqFileInfo file) override;
    void OnDownloadCompleted(int fileId, std::u16string path) override;
    void OnNewPreviewFrame() override;
    void RegisterPointer(void* pointer, std::function<void(void*)> free) override;
    OrqResult CheckStarted() override;
    OrqResult CheckSessionOpen() override;
    OrqResult CheckReady() override;
    OrqResult SendPropertyData(int propertyId) override;
    void FreePointer(void* pointer) override;

    // Commands of the session exports, run on the caller's thread (Device_Commands.cpp).
    // ticket: the camera's place among cameras shooting together; null for a shot of its own.
    OrqResult ShootCommand(std::shared_ptr<ShotTicket> ticket = nullptr);
    OrqResult UpdateAEAFCommand();
    OrqResult ResetCameraCommand();
    OrqResult DownloadFileCommand(int fileId, bool deleteAfter);
    OrqResult DownloadFileToCommand(int fileId, const std::u16string& path, bool deleteAfter);
    OrqResult DeleteFileCommand(int fileId);
    OrqResult GetFileListCommand(OrqFileInfo** list, int* count);
    OrqResult GetPropertyDataCommand(int propertyId, int* value);
    OrqResult SetPropertyDataCommand(int propertyId, int value);
    OrqResult SetZoomCommand(int position);
    OrqResult SetFocusCommand(int position);
    OrqResult FocusShiftCommand(int shift);
    OrqResult SetPreviewState(int state);
    bool PreviewState() const { return previewOn.load(); }

    // Stops all nine events; the results wait for deliveries already running.
    std::vector<std::function<void()>> StopEvents();

    // Events (subscriptions go through Subscribe on each).
    Event<OrqNotifyCallback> previewEvent;
    Event<OrqShootCompletedCallback> shootCompletedEvent;
    Event<OrqDownloadCompletedCallback> downloadCompletedEvent;
    Event<OrqNotifyCallback> propertyListChangedEvent;
    Event<OrqPropertyChangedCallback> propertyChangedEvent;
    Event<OrqNotifyCallback> zoomChangedEvent;
    Event<OrqNotifyCallback> zoomCompletedEvent;
    Event<OrqNotifyCallback> focusChangedEvent;
    Event<OrqCameraErrorCallback> cameraErrorEvent;

private:
    void ThreadBody(std::promise<bool>* startChannel);
    OrqResult StartUp();
    void MainLoop();
    // False when the loop is to end (halt).
    bool HandleMessage(const std::shared_ptr<MainLoopMsg_Base>& message, OrqResult& result,
                       std::unique_ptr<ContProc>& contProc);
    std::shared_ptr<MainLoopMsg_Base> TakeMessage();
    template <class Message>
    int32_t Coalesce(int32_t value, const char* line);
    OrqResult PeriodicPoll();
    void FailDevice(OrqResult code);

    int32_t id;
    std::shared_ptr<std::atomic<bool>> sessionOpen = std::make_shared<std::atomic<bool>>(false);
    std::atomic<bool> started{false};
    std::atomic<int32_t> result{ORQ_DEVICE_NOT_READY};
    std::thread thread;
    std::deque<std::shared_ptr<MainLoopMsg_Base>> queue;
    std::mutex queueLock;
    std::condition_variable queueCondition;
    std::atomic<bool> previewOn{false};
    std::atomic<bool> previewSuspended{false};
    std::atomic<bool> halting{false};
};

}  // namespace orq
