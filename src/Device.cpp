#include "Device.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <typeinfo>

#include "Logger.h"
#include "SDKConfig.h"
#include "memmgr.h"

namespace orq {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int64_t kPollIntervalMs = 2000;
constexpr const char* kRequiredOrqmVersion = "3.1.3.0";

int64_t NowMs() {
    return std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count();
}

template <size_t N>
void CopyText(OrqChar (&field)[N], const std::u16string& text) {
    size_t length = std::min(text.size(), N - 1);
    for (size_t i = 0; i < length; ++i) field[i] = static_cast<OrqChar>(text[i]);
    field[length] = 0;
}

// The auto exposure and focus refresh: one request, then a second in which no message is taken.
void UpdateAeAfStep(ContProc* self, milliseconds* delay, OrqResult* result, bool* again,
                    DeviceLL* device) {
    if (device->PTPUpdateAEAF() != ORQ_OK) {
        *result = ORQ_ERROR;
        return;
    }
    *delay = milliseconds(1000);
    *again = true;
    self->step = [](ContProc*, milliseconds*, OrqResult* closing, bool*) { *closing = ORQ_OK; };
}

}  // namespace

Device::Device(UsbLib* usb, const SDKConfig* sdkConfig, std::u16string devicePath, int32_t id)
    : DeviceLL(usb, sdkConfig, std::move(devicePath)), id(id) {
    previewEvent.SetName("preview");
    shootCompletedEvent.SetName("shoot completed");
    downloadCompletedEvent.SetName("download completed");
    propertyListChangedEvent.SetName("property list changed");
    propertyChangedEvent.SetName("property changed");
    zoomChangedEvent.SetName("zoom changed");
    zoomCompletedEvent.SetName("zoom completed");
    cameraErrorEvent.SetName("camera error");
}

Device::~Device() {
    halting = true;
    Post(std::make_shared<MainLoopMsg_Halt>());
    // A thread that was never started has nothing to join.
    if (thread.joinable()) thread.join();
}

void Device::Post(std::shared_ptr<MainLoopMsg_Base> message) {
    std::lock_guard<std::mutex> guard(queueLock);
    queue.push_back(std::move(message));
    queueCondition.notify_one();
}

OrqResult Device::Initialise() {
    OrqResult opened = OpenCamera();
    if (opened != ORQ_OK) return opened;
    std::promise<bool> startChannel;
    std::future<bool> startResult = startChannel.get_future();
    thread = std::thread([this, &startChannel] { ThreadBody(&startChannel); });
    if (!startResult.get()) {
        ORQ_LOG(ERR, "Camera main loop initialization failed");
        return static_cast<OrqResult>(result.load());
    }
    return ORQ_OK;
}

void Device::ThreadBody(std::promise<bool>* startChannel) {
    OrqResult startResult = ORQ_ERROR;
    try {
        startResult = StartUp();
    } catch (const std::exception& error) {
        ORQ_LOG(ERR, "StartUp exception: %s", error.what());
    } catch (...) {
        ORQ_LOG(ERR, "StartUp unknown exception");
    }
    if (startResult != ORQ_OK) {
        started = false;
        result = startResult;
        startChannel->set_value(false);
        return;
    }
    started = true;
    result = ORQ_OK;
    startChannel->set_value(true);
    try {
        MainLoop();
    } catch (const std::exception& error) {
        ORQ_LOG(ERR, "Main loop exception: %s", error.what());
        FailDevice(ORQ_ERROR);
    } catch (...) {
        ORQ_LOG(ERR, "Main loop unknown exception");
        FailDevice(ORQ_ERROR);
    }
}

OrqResult Device::StartUp() {
    OrqResult step;
    ORQ_LOG(INF, "Open session");
    if ((step = PTPOpenSession()) != ORQ_OK) return ORQ_ERROR;
    ORQ_LOG(INF, "Wait for rec mode");
    if ((step = PTPWaitRecMode()) != ORQ_OK) return step;
    ORQ_LOG(INF, "Load properties");
    if ((step = LoadProperties()) != ORQ_OK) return step;
    ORQ_LOG(INF, "Load ORQM version");
    if ((step = LoadOrqmVersion(kRequiredOrqmVersion)) != ORQ_OK) return step;
    ORQ_LOG(INF, "Load serial number");
    if ((step = LoadSerialNumber()) != ORQ_OK) return step;
    ORQ_LOG(INF, "Clean memory card");
    if ((step = CleanMemoryCard()) != ORQ_OK) return step;
    ORQ_LOG(INF, "Download camera log");
    if ((step = PTPGetCamLog()) != ORQ_OK) return step;
    ORQ_LOG(INF, "Load files list");
    if ((step = PTPUpdateObjectsInfo()) != ORQ_OK) return step;
    if (config.Has(ORQ_PROP_MANUAL_FOCUS_MODE)) {
        ORQ_LOG(INF, "Disable manual focus on start");
        if ((step = PTPManualFocusEnable(false)) != ORQ_OK) return step;
    }
    return ORQ_OK;
}

void Device::MainLoop() {
    const int64_t frameInterval = sdkConfig ? sdkConfig->PreviewFrameInterval : 60;
    int64_t lastPreview = 0;
    int64_t lastPoll = 0;
    std::unique_ptr<ContProc> contProc;
    int64_t contProcDue = 0;

    while (true) {
        int64_t now = NowMs();
        bool frameDue = now - lastPreview > frameInterval;
        bool pollDue = now - lastPoll > kPollIntervalMs;

        // Once the object is being destroyed, an operation's pause is cut short: its next step
        // meets the closed link and ends, rather than hold up the halt behind it.
        if (contProc && (contProcDue - now <= 0 || halting)) {
            milliseconds delay(0);
            OrqResult stepResult = ORQ_OK;
            bool again = false;
            contProc->step(contProc.get(), &delay, &stepResult, &again);
            if (again) {
                contProcDue = NowMs() + delay.count();
                continue;
            }
            contProc.reset();
            if (stepResult != ORQ_OK) return FailDevice(stepResult);
            continue;
        }
        if (!contProc) {
            if (pollDue) {
                OrqResult pollResult = PeriodicPoll();
                if (pollResult != ORQ_OK) return FailDevice(pollResult);
                lastPoll = now;
                continue;
            }
            if (auto message = TakeMessage()) {
                OrqResult messageResult = ORQ_OK;
                if (!HandleMessage(message, messageResult, contProc)) return;
                if (messageResult != ORQ_OK) return FailDevice(messageResult);
                contProcDue = NowMs();
                continue;
            }
        }
        if (frameDue) {
            if (previewOn && !previewSuspended) {
                OrqResult frameResult = UpdatePreviewFrame();
                if (frameResult != ORQ_OK) return FailDevice(frameResult);
            }
            lastPreview = now;
            continue;
        }

        // Sleep to the next deadline. The due tests are strict, so a deadline falls one
        // millisecond after its interval. The poll cannot run while an operation is under way,
        // so its deadline does not wake the loop then.
        int64_t wait = lastPreview + frameInterval + 1 - now;
        if (contProc) {
            wait = std::min(wait, contProcDue - now);
        } else {
            wait = std::min(wait, lastPoll + kPollIntervalMs + 1 - now);
        }
        if (wait <= 0) continue;
        std::unique_lock<std::mutex> guard(queueLock);
        if (contProc) {
            // Messages wait for the operation; only its step or a frame may wake the loop.
            queueCondition.wait_for(guard, milliseconds(wait), [this] { return halting.load(); });
        } else {
            queueCondition.wait_for(guard, milliseconds(wait), [this] { return !queue.empty(); });
        }
    }
}

std::shared_ptr<MainLoopMsg_Base> Device::TakeMessage() {
    std::lock_guard<std::mutex> guard(queueLock);
    if (queue.empty()) return nullptr;
    auto message = std::move(queue.front());
    queue.pop_front();
    return message;
}

template <class Message>
int32_t Device::Coalesce(int32_t value, const char* line) {
    std::lock_guard<std::mutex> guard(queueLock);
    while (!queue.empty()) {
        const MainLoopMsg_Base& front = *queue.front();
        auto* next = dynamic_cast<const Message*>(&front);
        if (!next || typeid(front) != typeid(Message)) break;
        value = next->position;
        ORQ_LOG(DEB, line, value);
        queue.pop_front();
    }
    return value;
}

bool Device::HandleMessage(const std::shared_ptr<MainLoopMsg_Base>& message, OrqResult& outcome,
                           std::unique_ptr<ContProc>& contProc) {
    MainLoopMsg_Base* base = message.get();
    if (dynamic_cast<MainLoopMsg_Halt*>(base)) {
        ORQ_LOG(DEB, "Main loop: halt");
        return false;
    }
    if (dynamic_cast<MainLoopMsg_UpdateAeAf*>(base)) {
        ORQ_LOG(DEB, "Main loop: update aeaf");
        contProc = std::make_unique<ContProc>(
            [this](ContProc* self, milliseconds* delay, OrqResult* stepResult, bool* again) {
                UpdateAeAfStep(self, delay, stepResult, again, this);
            });
    } else if (auto* shoot = dynamic_cast<MainLoopMsg_Shoot*>(base)) {
        ORQ_LOG(DEB, "Main loop: shoot");
        contProc = Shoot([this](OrqFileInfo file) { OnShootCompleted(file); }, shoot->ticket,
                         std::move(shoot->accepted));
    } else if (auto* download = dynamic_cast<MainLoopMsg_DownloadTo*>(base)) {
        ORQ_LOG(DEB, "Main loop: download to");
        outcome = PTPDownloadFile(download->fileId, download->path);
        if (outcome == ORQ_OK && download->deleteAfter) outcome = PTPRemoveFile(download->fileId);
    } else if (auto* remove = dynamic_cast<MainLoopMsg_RemoveFile*>(base)) {
        ORQ_LOG(DEB, "Main loop: remove file");
        outcome = PTPRemoveFile(remove->fileId);
    } else if (auto* property = dynamic_cast<MainLoopMsg_SetProperyData*>(base)) {
        ORQ_LOG(DEB, "Main loop: set property data: %d", property->propertyId);
        outcome = WriteProperty(property->propertyId);
    } else if (auto* zoomTo = dynamic_cast<MainLoopMsg_SetZoom*>(base)) {
        ORQ_LOG(DEB, "Main loop: set zoom %d", zoomTo->position);
        int32_t position =
            Coalesce<MainLoopMsg_SetZoom>(zoomTo->position, "Main loop: set zoom (next) %d");
        contProc = CreateZoomProc(position);
    } else if (auto* focusTo = dynamic_cast<MainLoopMsg_SetFocus*>(base)) {
        ORQ_LOG(DEB, "Main loop: set focus %d", focusTo->position);
        int32_t position =
            Coalesce<MainLoopMsg_SetFocus>(focusTo->position, "Main loop: set focus (next) %d");
        outcome = SetFocus(position);
    } else if (auto* shift = dynamic_cast<MainLoopMsg_FocusShift*>(base)) {
        ORQ_LOG(DEB, "Main loop: focus shift %d", shift->shift);
        outcome = FocusShift(shift->shift);
    } else if (dynamic_cast<MainLoopMsg_ResetCamera*>(base)) {
        ORQ_LOG(DEB, "Main loop: reset camera");
        outcome = PTPSetPlayMode() != ORQ_OK ? ORQ_ERROR : ORQ_OK;
        if (outcome == ORQ_OK) {
            std::this_thread::sleep_for(milliseconds(1000));
            outcome = PTPReset() != ORQ_OK ? ORQ_ERROR : ORQ_OK;
        }
    }
    return true;
}

OrqResult Device::PeriodicPoll() {
    auto before = BuildAvailableValues();
    OrqResult step = ReadCameraMode();
    if (step != ORQ_OK) {
        ORQ_LOG(ERR, "ReadCameraMode failed");
        return step;
    }
    if (BuildAvailableValues() != before) {
        ORQ_LOG(INF, "Propery list changed");
        OnPropertyListChanged();
    }
    if ((step = UpdateZoom()) != ORQ_OK) {
        ORQ_LOG(ERR, "Update zoom failed");
        return step;
    }
    if ((step = ReadBatteryLevel(false)) != ORQ_OK) {
        ORQ_LOG(ERR, "ReadBatteryLevel failed");
        return step;
    }
    if (UpdateFocusPos() == ORQ_ERROR) {
        ORQ_LOG(ERR, "UpdateFocusPos failed");
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

void Device::FailDevice(OrqResult code) {
    // Stored before the flag clears: a call that finds the flag clear finds the cause with it.
    result = code;
    started = false;
    ORQ_LOG(ERR, "Camera failed: %d", code);
    if (code != ORQ_BATTERY_LOW) {
        // A pulled cable shows first as a failed transfer; give the notification thread time to
        // report the removal so that the application learns the real cause.
        // Nobody is left to tell once the object is being destroyed, so that ends the wait too.
        for (int look = 0; look < 16 && IsConnected() && !halting; ++look) {
            std::unique_lock<std::mutex> guard(queueLock);
            queueCondition.wait_for(guard, milliseconds(500), [this] { return halting.load(); });
        }
        if (!IsConnected()) {
            result = ORQ_DISCONNECTED;
            ORQ_LOG(ERR, "Camera disconnected");
        }
    }
    OrqResult reported = static_cast<OrqResult>(result.load());
    cameraErrorEvent.Raise([reported](OrqCameraErrorCallback callback, void* context) {
        callback(context, reported);
    });
}

std::vector<std::function<void()>> Device::StopEvents() {
    return {previewEvent.Stop(),           shootCompletedEvent.Stop(),
            downloadCompletedEvent.Stop(), propertyListChangedEvent.Stop(),
            propertyChangedEvent.Stop(),   zoomChangedEvent.Stop(),
            zoomCompletedEvent.Stop(),     focusChangedEvent.Stop(),
            cameraErrorEvent.Stop()};
}

OrqCameraInfo Device::CameraInfo(uint32_t publicId) const {
    OrqCameraInfo info{};
    info.id = publicId;
    CopyText(info.name, deviceName);
    CopyText(info.path, devicePath);
    CopyText(info.version, orqmVersion);
    CopyText(info.serial, serialNumber);
    return info;
}

// --- Upward operations ------------------------------------------------------------------------

OrqResult Device::SetPreShootProperty() {
    return config.Has(ORQ_PROP_FLASH_POWER) ? WriteProperty(ORQ_PROP_FLASH_POWER) : ORQ_OK;
}

void Device::SetPreviewSuspended(bool suspended) {
    previewSuspended = suspended;
}

bool Device::IsMemLogging() {
    return sdkConfig && sdkConfig->MemLogging;
}

void Device::OnPropertyChanged(int propertyId) {
    propertyChangedEvent.Raise([propertyId](OrqPropertyChangedCallback callback, void* context) {
        callback(context, propertyId);
    });
}

namespace {
auto Notify = [](OrqNotifyCallback callback, void* context) { callback(context); };
}

void Device::OnFocusChanged() {
    focusChangedEvent.Raise(Notify);
}
void Device::OnPropertyListChanged() {
    propertyListChangedEvent.Raise(Notify);
}
void Device::OnZoomChanged() {
    zoomChangedEvent.Raise(Notify);
}
void Device::OnZoomCompleted() {
    zoomCompletedEvent.Raise(Notify);
}
void Device::OnNewPreviewFrame() {
    previewEvent.Raise(Notify);
}

void Device::OnShootCompleted(OrqFileInfo file) {
    shootCompletedEvent.Raise([file](OrqShootCompletedCallback callback, void* context) {
        auto* copy = new OrqFileInfo(file);
        ORQ_REGISTER_POINTER(copy, [](void* p) { delete static_cast<OrqFileInfo*>(p); });
        callback(context, copy);
    });
}

void Device::OnDownloadCompleted(int fileId, std::u16string path) {
    downloadCompletedEvent.Raise(
        [fileId, path](OrqDownloadCompletedCallback callback, void* context) {
            auto* copy = new OrqChar[path.size() + 1];
            std::copy(path.begin(), path.end(), copy);
            copy[path.size()] = 0;
            ORQ_REGISTER_POINTER(copy, [](void* p) { delete[] static_cast<OrqChar*>(p); });
            callback(context, fileId, copy);
        });
}

void Device::RegisterPointer(void* pointer, std::function<void(void*)> free) {
    ORQ_REGISTER_POINTER(pointer, std::move(free));
}

void Device::FreePointer(void* pointer) {
    if (pointer) memmgr::Free(pointer);
}

OrqResult Device::CheckStarted() {
    if (started) return IsConnected() ? ORQ_OK : ORQ_DEVICE_NOT_READY;
    return static_cast<OrqResult>(result.load());
}

OrqResult Device::CheckSessionOpen() {
    return sessionOpen->load() ? ORQ_OK : ORQ_ERROR;
}

OrqResult Device::CheckReady() {
    OrqResult ready = CheckStarted();
    return ready != ORQ_OK ? ready : CheckSessionOpen();
}

OrqResult Device::SendPropertyData(int propertyId) {
    Post(std::make_shared<MainLoopMsg_SetProperyData>(propertyId));
    return ORQ_OK;
}

}  // namespace orq
