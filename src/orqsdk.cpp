// The exported functions: lifecycle, the call frame of session calls, and one thin wrapper per
// export. No exception leaves this file.
#include "orqsdk.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <set>

#include "CameraManager.h"
#include "Kernel/ShotGate.h"
#include "Logger.h"
#include "memmgr.h"
#include "models/PropertyNames.h"

using namespace orq;

namespace {

constexpr const char* kInstanceLockName = "ORQSDK{6F0C2D43-9B8A-4E51-A7D2-3C1E5B9F0A84}";
// From project(), through the generated version header.
const char16_t kVersionText[] = u"" ORQSDK_VERSION_STRING;
// Synchronised shots: how long the ready cameras wait for the slowest one's preparation, and how
// much longer the caller waits for the Shoot commands to be answered.
constexpr std::chrono::milliseconds kShotPatience{10000};
constexpr std::chrono::milliseconds kShotReportMargin{30000};
constexpr int kMaxSynchronizedShots = 1024;
// A release at a given moment: how far ahead the moment may be.
constexpr std::chrono::microseconds kLongestLead{60 * 1000 * 1000};

// The manager pointer is read by exports on any thread without a lock, as the handle cells
// copy it; it changes only in initialise and terminate.
std::atomic<CameraManager*> manager{nullptr};
std::unique_ptr<platform::InstanceLock> instanceLock;
// Serialises initialise and terminate against each other.
std::mutex lifecycleLock;

#define API_ENTRY(name)         \
    do {                        \
        ORQ_API_LOG(INF, name); \
        ORQ_LOG(INF, name);     \
    } while (0)

// A copy of the session's record if the handle is one the SDK issued and nobody has released or
// swept: a freed, forged or stale handle is answered, never read.
bool LiveSession(OrqSessionHandle session, OrqSessionRecord& copy) {
    return session && memmgr::ReadLive(session, memmgr::Kind::Session, [&] { copy = *session; });
}

// The manager behind a live cell, or null (a released cell, or one taken before start-up).
CameraManager* LiveManager(OrqCameraManagerHandle handle) {
    CameraManager* held = nullptr;
    if (handle)
        memmgr::ReadLive(handle, memmgr::Kind::ManagerCell, [&] { held = handle->manager; });
    return held;
}

template <class Result, class Work>
Result InnerRunWithDev(const OrqSessionRecord& session, Result notFound, Work& work) {
    Result value = notFound;
    bool found = session.manager->WithDevice(session.deviceId,
                                             [&](Device* device) { value = work(device); });
    if (!found) ORQ_LOG(ERR, "_RunWithDev device not found");
    return value;
}

// The frame's catch-all, also used alone by exports without a session: no exception gets out
// into C code.
template <class Result, class Work>
Result Guarded(Result failure, Work work) {
    try {
        return work();
    } catch (const std::exception& error) {
        ORQ_LOG(ERR, "RunWithDev std::exception: %s", error.what());
    } catch (...) {
        ORQ_LOG(ERR, "RunWithDev unknown exception");
    }
    return failure;
}

template <class Result, class Work>
Result RunWithDev(OrqSessionHandle session, Result failure, Result notFound, Work work) {
    if (!session) {
        ORQ_LOG(ERR, "RunWithDev session is null");
        return failure;
    }
    return Guarded(failure, [&] {
        OrqSessionRecord record{};
        if (!LiveSession(session, record)) {
            ORQ_LOG(ERR, "RunWithDev session is not one of ours");
            return failure;
        }
        return InnerRunWithDev(record, notFound, work);
    });
}

template <class Work>
OrqResult RunResult(OrqSessionHandle session, Work work) {
    return RunWithDev<OrqResult>(session, ORQ_ERROR, ORQ_DEVICE_NOT_READY, work);
}

template <class Work>
int RunInteger(OrqSessionHandle session, Work work) {
    return RunWithDev<int>(session, 0, 0, work);
}

template <class Work>
void* RunPointer(OrqSessionHandle session, Work work) {
    return RunWithDev<void*>(session, nullptr, nullptr, work);
}

template <class Callback, class SelectEvent>
OrqSubscription SubscribeDevice(OrqSessionHandle session, Callback callback, void* context,
                                SelectEvent select) {
    return static_cast<OrqSubscription>(RunPointer(session, [&](Device* device) -> void* {
        return select(device).Subscribe(callback, context);
    }));
}

}  // namespace

extern "C" {

// --- Lifecycle ---------------------------------------------------------------------------------

ORQ_API OrqResult OrqInitializeSDK(void) {
    return Guarded(ORQ_ERROR, [] {
        std::lock_guard<std::mutex> guard(lifecycleLock);
        if (manager.load()) return ORQ_ERROR;
        platform::InstanceLock::Status status;
        instanceLock = platform::InstanceLock::Acquire(kInstanceLockName, status);
        if (!instanceLock) return ORQ_SECOND_PROCESS;
        ORQ_API_LOG(INF, "OrqGetSDKVersion");
        ORQ_LOG(INF, "Initilize SDK: %s", "64 bit ver");
        ORQ_LOG(INF, "Version: %s", ORQSDK_VERSION_STRING);
        ORQ_LOG(INF, "Build: %s %s", __DATE__, __TIME__);
        ORQ_API_LOG(INF, "OrqInitializeSDK");
        ORQ_API_LOG(INF, "> Initilize SDK: %s", "64 bit ver");
        ORQ_API_LOG(INF, "> Version: %s", ORQSDK_VERSION_STRING);
        try {
            manager = new CameraManager();
        } catch (...) {
            instanceLock.reset();
            throw;
        }
        return ORQ_OK;
    });
}

ORQ_API void OrqTerminateSDK(void) {
    Guarded(0, [] {
        ORQ_API_LOG(INF, "OrqTerminateSDK");
        ORQ_LOG(INF, "Terminate SDK");
        std::lock_guard<std::mutex> guard(lifecycleLock);
        CameraManager* current = manager.load();
        if (!current) {
            ORQ_LOG(INF, "OrqTerminateSDK: CamMgr don't initialize");
            return 0;
        }
        // Nothing the sweep frees may still be in a callback's hands.
        current->StopDeliveries();
        memmgr::Sweep();
        manager = nullptr;
        delete current;
        instanceLock.reset();
        ORQ_LOG(INF, "CamMgr deleted");
        return 0;
    });
}

ORQ_API void OrqGetSDKVersion(OrqChar** version) {
    ORQ_API_LOG(INF, "OrqGetSDKVersion");
    if (version) *version = const_cast<OrqChar*>(reinterpret_cast<const OrqChar*>(kVersionText));
}

ORQ_API void OrqFree(void* pointer) {
    Guarded(0, [pointer] {
        if (pointer) memmgr::Free(pointer);
        return 0;
    });
}

// --- Cameras and sessions ----------------------------------------------------------------------

ORQ_API OrqCameraManagerHandle OrqGetCameraManager(void) {
    API_ENTRY("OrqGetCameraManager");
    return Guarded<OrqCameraManagerHandle>(nullptr, [] {
        auto* cell = new OrqCameraManagerCell{manager.load()};
        ORQ_REGISTER_HANDLE(
            cell, [](void* p) { delete static_cast<OrqCameraManagerCell*>(p); }, ManagerCell);
        return cell;
    });
}

ORQ_API OrqSubscription OrqCameraListChangedSubscribe(OrqCameraManagerHandle handle,
                                                      OrqCameraListChangedCallback callback,
                                                      void* context) {
    API_ENTRY("OrqCameraListChangedSubscribe");
    ORQ_LOG(DEB, "CamConnectionStateChangedSubscribe");
    return Guarded<OrqSubscription>(nullptr, [&] {
        CameraManager* held = LiveManager(handle);
        return held ? held->connectionEvent.Subscribe(callback, context) : nullptr;
    });
}

ORQ_API OrqSubscription OrqCameraInitializationErrorSubscribe(
    OrqCameraManagerHandle handle, OrqCameraInitializationErrorCallback callback, void* context) {
    API_ENTRY("OrqCameraInitializationErrorSubscribe");
    return Guarded<OrqSubscription>(nullptr, [&] {
        CameraManager* held = LiveManager(handle);
        return held ? held->initErrorEvent.Subscribe(callback, context) : nullptr;
    });
}

ORQ_API OrqResult OrqGetCameraList(OrqCameraManagerHandle handle, OrqCameraInfo** list,
                                   int* count) {
    API_ENTRY("OrqGetCameraList");
    return Guarded(ORQ_ERROR, [&] {
        CameraManager* held = LiveManager(handle);
        if (!held || !list || !count) return ORQ_ERROR;
        return held->GetCameraList(list, count);
    });
}

ORQ_API OrqResult OrqOpenSession(OrqCameraManagerHandle handle, int cameraId,
                                 OrqSessionHandle* session) {
    API_ENTRY("OrqOpenSession");
    return Guarded(ORQ_ERROR, [&] {
        CameraManager* held = LiveManager(handle);
        if (!held || !session) return ORQ_ERROR;
        return held->OpenSession(cameraId, session);
    });
}

ORQ_API OrqResult OrqGetCameraConnectionState(OrqSessionHandle session, int* state) {
    API_ENTRY("OrqGetCameraConnectionState");
    return Guarded(ORQ_ERROR, [&] {
        OrqSessionRecord record{};
        bool connected =
            LiveSession(session, record) && record.manager->IsConnected(record.deviceId);
        if (state) *state = connected ? 0 : 1;
        return ORQ_OK;
    });
}

ORQ_API OrqResult OrqGetCameraInfo(OrqSessionHandle session, OrqCameraInfo* info) {
    API_ENTRY("OrqGetCameraInfo");
    return RunResult(session, [&](Device* device) {
        if (!info) return ORQ_ERROR;
        *info = device->CameraInfo(static_cast<uint32_t>(device->Id()) ^ kCameraIdPattern);
        return ORQ_OK;
    });
}

ORQ_API OrqResult OrqResetCamera(OrqSessionHandle session) {
    API_ENTRY("OrqResetCamera");
    return RunResult(session, [](Device* device) { return device->ResetCameraCommand(); });
}

ORQ_API OrqSubscription OrqCameraErrorSubscribe(OrqSessionHandle session,
                                                OrqCameraErrorCallback callback, void* context) {
    API_ENTRY("OrqCameraErrorSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->cameraErrorEvent; });
}

// --- Capture and files -------------------------------------------------------------------------

ORQ_API OrqResult OrqUpdateAEAF(OrqSessionHandle session) {
    API_ENTRY("OrqUpdateAEAF");
    return RunResult(session, [](Device* device) { return device->UpdateAEAFCommand(); });
}

ORQ_API OrqResult OrqShoot(OrqSessionHandle session) {
    API_ENTRY("OrqShoot");
    return RunResult(session, [](Device* device) { return device->ShootCommand(); });
}

namespace {

// Hands each camera its ticket of the gate; one that cannot take it reports at once.
// Whether a session is named twice: that camera would wait at the gate for itself, so the whole
// call is refused before anything fires. Compared as handles: a live session is one camera's
// claim, and a handle that is not live is refused by the frame without being read.
bool NamesASessionTwice(OrqSessionHandle* sessions, size_t cameras) {
    std::set<OrqSessionHandle> seen;
    for (size_t i = 0; i < cameras; ++i) {
        if (sessions[i] && !seen.insert(sessions[i]).second) {
            ORQ_LOG(ERR, "a synchronised shot names one session twice");
            return true;
        }
    }
    return false;
}

void PostTickets(OrqSessionHandle* sessions, size_t cameras,
                 const std::shared_ptr<ShotGate>& gate) {
    for (size_t i = 0; i < cameras; ++i) {
        auto ticket = std::make_shared<ShotTicket>(gate, i);
        const OrqResult posted =
            RunResult(sessions[i], [&](Device* device) { return device->ShootCommand(ticket); });
        if (posted != ORQ_OK) gate->Report(i, posted);
    }
}

}  // namespace

ORQ_API OrqResult OrqShootSynchronized(OrqSessionHandle* sessions, int count, OrqResult* results) {
    ORQ_API_LOG(INF, "OrqShootSynchronized: %d", count);
    ORQ_LOG(INF, "OrqShootSynchronized");
    if (!sessions || !results || count <= 0 || count > kMaxSynchronizedShots) return ORQ_ERROR;
    return Guarded(ORQ_ERROR, [&] {
        const size_t cameras = static_cast<size_t>(count);
        if (NamesASessionTwice(sessions, cameras)) return ORQ_ERROR;
        auto gate = std::make_shared<ShotGate>(cameras, kShotPatience);
        PostTickets(sessions, cameras, gate);
        const std::vector<OrqResult> outcome =
            gate->AwaitReports(kShotPatience + kShotReportMargin);
        OrqResult all = ORQ_OK;
        for (size_t i = 0; i < cameras; ++i) {
            results[i] = outcome[i];
            if (outcome[i] != ORQ_OK) all = ORQ_ERROR;
        }
        return all;
    });
}

ORQ_API OrqResult OrqShootSynchronizedAt(OrqSessionHandle* sessions, int count, int64_t atUtcUs,
                                         OrqReleaseReport* reports) {
    ORQ_API_LOG(INF, "OrqShootSynchronizedAt: %d %lld", count, static_cast<long long>(atUtcUs));
    ORQ_LOG(INF, "OrqShootSynchronizedAt");
    if (!sessions || !reports || count <= 0 || count > kMaxSynchronizedShots) return ORQ_ERROR;
    return Guarded(ORQ_ERROR, [&] {
        using std::chrono::microseconds;
        const auto wallNow = std::chrono::system_clock::now();
        const auto steadyNow = ShotGate::Clock::now();
        const microseconds ahead = microseconds(atUtcUs) - std::chrono::duration_cast<microseconds>(
                                                               wallNow.time_since_epoch());
        if (ahead > kLongestLead) return ORQ_ERROR;
        const size_t cameras = static_cast<size_t>(count);
        if (NamesASessionTwice(sessions, cameras)) return ORQ_ERROR;
        if (ahead.count() <= 0) {
            ORQ_LOG(ERR, "OrqShootSynchronizedAt: the moment passed %lld us ago",
                    static_cast<long long>(-ahead.count()));
            for (size_t i = 0; i < cameras; ++i) reports[i] = {ORQ_TOO_LATE, 0, -ahead.count()};
            return ORQ_ERROR;
        }
        const auto releaseAt = steadyNow + ahead;
        auto gate = std::make_shared<ShotGate>(cameras, releaseAt);
        PostTickets(sessions, cameras, gate);
        gate->OpenAtMoment();
        const std::vector<OrqResult> outcome = gate->AwaitReports(kShotReportMargin);
        const std::vector<ShotGate::Times> times = gate->SlotTimes();
        OrqResult all = ORQ_OK;
        for (size_t i = 0; i < cameras; ++i) {
            OrqReleaseReport report{outcome[i], 0, 0};
            if (outcome[i] == ORQ_OK && times[i].sentUs != 0) {
                report.sentUtcUs = times[i].sentUs;
                report.lateUs = report.sentUtcUs - atUtcUs;
            } else if (outcome[i] == ORQ_TOO_LATE && times[i].arrived) {
                report.lateUs =
                    std::chrono::duration_cast<microseconds>(times[i].ready - releaseAt).count();
            }
            reports[i] = report;
            if (outcome[i] != ORQ_OK) all = ORQ_ERROR;
        }
        return all;
    });
}

ORQ_API OrqSubscription OrqShootCompletedSubscribe(OrqSessionHandle session,
                                                   OrqShootCompletedCallback callback,
                                                   void* context) {
    API_ENTRY("OrqShootCompletedSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->shootCompletedEvent; });
}

ORQ_API OrqResult OrqGetFileList(OrqSessionHandle session, OrqFileInfo** list, int* count) {
    API_ENTRY("OrqGetFileList");
    return RunResult(session, [&](Device* device) {
        if (!list || !count) return ORQ_ERROR;
        return device->GetFileListCommand(list, count);
    });
}

ORQ_API OrqResult OrqDownloadFile(OrqSessionHandle session, int fileId, int deleteAfter) {
    ORQ_API_LOG(INF, "OrqDownloadFile: %d", deleteAfter);
    ORQ_LOG(INF, "OrqDownloadFile");
    return RunResult(session, [&](Device* device) {
        return device->DownloadFileCommand(fileId, deleteAfter == 1);
    });
}

ORQ_API OrqResult OrqDownloadFileTo(OrqSessionHandle session, int fileId, OrqChar* path,
                                    int deleteAfter) {
    std::u16string target;
    if (path) {
        for (const OrqChar* p = path; *p; ++p) target += static_cast<char16_t>(*p);
    }
    ORQ_API_LOG(INF, "OrqDownloadFileTo: %s %d", platform::ToUtf8(target).c_str(), deleteAfter);
    ORQ_LOG(INF, "OrqDownloadFileTo");
    return RunResult(session, [&](Device* device) {
        return device->DownloadFileToCommand(fileId, target, deleteAfter == 1);
    });
}

ORQ_API OrqResult OrqDeleteFile(OrqSessionHandle session, int fileId) {
    API_ENTRY("OrqDeleteFile");
    return RunResult(session, [&](Device* device) { return device->DeleteFileCommand(fileId); });
}

ORQ_API OrqSubscription OrqDownloadCompletedSubscribe(OrqSessionHandle session,
                                                      OrqDownloadCompletedCallback callback,
                                                      void* context) {
    API_ENTRY("OrqDownloadCompletedSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->downloadCompletedEvent; });
}

ORQ_API int OrqIsVideoSupported(OrqSessionHandle session) {
    API_ENTRY("OrqIsVideoSupported");
    return RunInteger(session,
                      [](Device* device) { return device->Config().videoSupported ? 1 : 0; });
}

ORQ_API OrqResult OrqStartVideo(OrqSessionHandle session) {
    API_ENTRY("OrqStartVideo");
    return RunResult(session, [](Device* device) { return device->PTPStartVideo(); });
}

ORQ_API OrqResult OrqStopVideo(OrqSessionHandle session, OrqFileInfo* file) {
    API_ENTRY("OrqStopVideo");
    return RunResult(session, [&](Device* device) { return device->PTPStopVideo(file); });
}

// --- Properties --------------------------------------------------------------------------------

ORQ_API OrqResult OrqGetPropertyData(OrqSessionHandle session, int propertyId, int* value) {
    ORQ_API_LOG(INF, "OrqGetPropertyData: %d", propertyId);
    ORQ_LOG(INF, "OrqGetPropertyData");
    return RunResult(
        session, [&](Device* device) { return device->GetPropertyDataCommand(propertyId, value); });
}

ORQ_API OrqResult OrqSetPropertyData(OrqSessionHandle session, int propertyId, int value) {
    ORQ_API_LOG(INF, "OrqSetPropertyData: %d %d", propertyId, value);
    ORQ_LOG(INF, "OrqSetPropertyData: %d %d", propertyId, value);
    return RunResult(
        session, [&](Device* device) { return device->SetPropertyDataCommand(propertyId, value); });
}

ORQ_API OrqResult OrqGetPropertyList(OrqSessionHandle session, int** list, int* count) {
    API_ENTRY("OrqGetPropertyList");
    return RunResult(session, [&](Device* device) {
        if (!list || !count) return ORQ_ERROR;
        return device->GetPropertyList(list, count);
    });
}

ORQ_API OrqResult OrqGetPropertyDesc(OrqSessionHandle session, int propertyId,
                                     OrqPropertyDesc** description) {
    ORQ_API_LOG(INF, "OrqGetPropertyDesc: %d", propertyId);
    ORQ_LOG(INF, "OrqGetPropertyDesc: %d", propertyId);
    return RunResult(session, [&](Device* device) {
        if (!description) return ORQ_ERROR;
        return device->GetPropertyDesc(propertyId, description);
    });
}

ORQ_API OrqSubscription OrqPropertyListChangedSubscribe(OrqSessionHandle session,
                                                        OrqNotifyCallback callback, void* context) {
    API_ENTRY("OrqPropertyListChangedSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->propertyListChangedEvent; });
}

ORQ_API OrqSubscription OrqPropertyChangedSubscribe(OrqSessionHandle session,
                                                    OrqPropertyChangedCallback callback,
                                                    void* context) {
    API_ENTRY("OrqPropertyChangedSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->propertyChangedEvent; });
}

ORQ_API OrqResult OrqGetPropertyName(int propertyId, OrqChar** name) {
    ORQ_API_LOG(INF, "OrqGetPropertyName: %d", propertyId);
    return Guarded(ORQ_ERROR, [&] { return GetPropertyName(propertyId, name); });
}

ORQ_API OrqResult OrqGetPropertyValName(int propertyId, int value, OrqChar** name) {
    ORQ_API_LOG(INF, "OrqGetPropertyValName: %d %d", propertyId, value);
    return Guarded(ORQ_ERROR, [&] { return GetPropertyValName(propertyId, value, name); });
}

// --- Zoom and focus ----------------------------------------------------------------------------

ORQ_API OrqResult OrqGetMaximumZoom(OrqSessionHandle session, int* maximum) {
    API_ENTRY("OrqGetMaximumZoom");
    return RunResult(session, [&](Device* device) {
        if (!maximum) return ORQ_ERROR;
        *maximum = device->Config().maxZoom;
        return ORQ_OK;
    });
}

ORQ_API OrqResult OrqGetZoom(OrqSessionHandle session, int* zoom) {
    API_ENTRY("OrqGetZoom");
    return RunResult(session, [&](Device* device) {
        if (!zoom) return ORQ_ERROR;
        *zoom = device->GetZoom();
        return ORQ_OK;
    });
}

ORQ_API OrqResult OrqSetZoom(OrqSessionHandle session, int zoom) {
    ORQ_API_LOG(INF, "OrqSetZoom: %d", zoom);
    ORQ_LOG(INF, "OrqSetZoom");
    return RunResult(session, [&](Device* device) { return device->SetZoomCommand(zoom); });
}

ORQ_API OrqSubscription OrqZoomChangedSubscribe(OrqSessionHandle session,
                                                OrqNotifyCallback callback, void* context) {
    API_ENTRY("OrqZoomChangedSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->zoomChangedEvent; });
}

ORQ_API OrqSubscription OrqZoomCompletedSubscribe(OrqSessionHandle session,
                                                  OrqNotifyCallback callback, void* context) {
    API_ENTRY("OrqZoomCompletedSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->zoomCompletedEvent; });
}

ORQ_API OrqResult OrqGetFocus(OrqSessionHandle session, int* focus) {
    API_ENTRY("OrqGetFocus");
    return RunResult(session, [&](Device* device) {
        if (!focus) return ORQ_ERROR;
        *focus = device->GetFocus();
        return ORQ_OK;
    });
}

ORQ_API OrqResult OrqSetFocus(OrqSessionHandle session, int focus) {
    // Logged under the zoom call's name: long-standing behaviour that log readers rely on.
    ORQ_API_LOG(INF, "OrqSetZoom");
    ORQ_LOG(INF, "OrqSetZoom");
    return RunResult(session, [&](Device* device) { return device->SetFocusCommand(focus); });
}

ORQ_API OrqResult OrqFocusShift(OrqSessionHandle session, int shift) {
    API_ENTRY("OrqFocusShift");
    return RunResult(session, [&](Device* device) { return device->FocusShiftCommand(shift); });
}

ORQ_API OrqSubscription OrqFocusChangedSubscribe(OrqSessionHandle session,
                                                 OrqNotifyCallback callback, void* context) {
    API_ENTRY("OrqFocusChangedSubscribe");
    return SubscribeDevice(
        session, callback, context,
        [](Device * device) -> auto& { return device->focusChangedEvent; });
}

// --- Preview -----------------------------------------------------------------------------------

ORQ_API OrqResult OrqGetPreviewFrame(OrqSessionHandle session, void** frame, int* size) {
    return RunResult(session, [&](Device* device) {
        if (!frame || !size) return ORQ_ERROR;
        return device->GetPreviewFrame(frame, size);
    });
}

ORQ_API OrqResult OrqSetPreviewState(OrqSessionHandle session, int state) {
    ORQ_API_LOG(INF, "OrqSetPreviewState: %d", state);
    ORQ_LOG(INF, "OrqSetPreviewState: %d", state);
    return RunResult(session, [&](Device* device) { return device->SetPreviewState(state); });
}

ORQ_API OrqResult OrqGetPreviewState(OrqSessionHandle session, int* state) {
    API_ENTRY("OrqGetPreviewState");
    return RunResult(session, [&](Device* device) {
        if (!state) return ORQ_ERROR;
        *state = device->PreviewState() ? 1 : 0;
        return ORQ_OK;
    });
}

ORQ_API OrqSubscription OrqNewPreviewFrameSubscribe(OrqSessionHandle session,
                                                    OrqNotifyCallback callback, void* context) {
    API_ENTRY("OrqNewPreviewFrameSubscribe");
    return SubscribeDevice(
        session, callback, context, [](Device * device) -> auto& { return device->previewEvent; });
}

}  // extern "C"
