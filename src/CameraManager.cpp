#include "CameraManager.h"

#include <algorithm>
#include <chrono>
#include <functional>

#include "CameraText.h"
#include "Logger.h"
#include "memmgr.h"

namespace orq {

namespace {
// How long a reconciliation waits for one under way on another thread: longer than a camera's
// start-up, whose every step is bounded.
constexpr std::chrono::milliseconds kRefreshWait(60000);
}  // namespace

bool CameraManager::RefreshGate::Enter(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> guard(lock);
    auto self = std::this_thread::get_id();
    if (depth == 0 || owner != self) {
        if (!free.wait_for(guard, wait, [this] { return depth == 0; })) return false;
        owner = self;
    }
    ++depth;
    return true;
}

void CameraManager::RefreshGate::Leave() {
    std::lock_guard<std::mutex> guard(lock);
    if (--depth == 0) {
        owner = std::thread::id();
        free.notify_all();
    }
}

CameraManager::CameraManager() {
    connectionEvent.SetName("dev connection state");
    initErrorEvent.SetName("camera init error");
    std::u16string configPath =
        platform::ExecutableFolder() + platform::PathSeparator() + u"ORQSDK.cfg";
    if (FILE* probe = platform::OpenFile(configPath, "rb")) {
        std::fclose(probe);
        LoadConfig(config, configPath);
    }
    usb = CreateUsbLib(this);
    nextId = 0;
    RefreshDevices();
}

CameraManager::~CameraManager() {
    // From here a notification does nothing, so that no camera is started while the table is
    // being emptied. Closing fails every transfer at once, so that neither a main loop nor a
    // start-up under way waits out a stalled camera. The transport itself is stopped last: the
    // cameras close through it.
    terminating = true;
    {
        std::lock_guard<std::recursive_mutex> guard(lock);
        for (auto& row : devices) row.second->ForceCloseUSB();
        if (starting) starting->ForceCloseUSB();
    }
    // A reconciliation under way ends quickly now; wait for it, as it uses the transport.
    bool entered = refreshGate.Enter(kRefreshWait);
    if (!entered) ORQ_LOG(ERR, "RefreshDevices: another refresh did not end");
    std::map<int32_t, std::unique_ptr<Device>> gone;
    {
        std::lock_guard<std::recursive_mutex> guard(lock);
        gone.swap(devices);
    }
    gone.clear();
    if (entered) refreshGate.Leave();
    usb.reset();
}

void CameraManager::StopDeliveries() {
    terminating = true;
    std::vector<std::function<void()>> drains{connectionEvent.Stop(), initErrorEvent.Stop()};
    {
        std::lock_guard<std::recursive_mutex> guard(lock);
        for (auto& row : devices) {
            for (auto& drain : row.second->StopEvents()) drains.push_back(std::move(drain));
        }
    }
    // Outside the mutex: a callback still running may be waiting for it.
    for (auto& drain : drains) drain();
}

void CameraManager::OnDeviceChange() {
    RefreshDevices();
}

void CameraManager::RefreshDevices(bool wait) {
    if (!refreshGate.Enter(wait ? kRefreshWait : std::chrono::milliseconds(0))) {
        if (wait) ORQ_LOG(ERR, "RefreshDevices: another refresh did not end");
        return;
    }
    struct Leave {
        RefreshGate& gate;
        ~Leave() { gate.Leave(); }
    } leave{refreshGate};
    if (terminating) return;
    Reconciliation pass;
    SweepTable(usb->GetAllConnectedDevicePaths(), pass);
    // Stopping a camera's thread and starting a camera both talk to cameras: neither holds the
    // table's mutex, so that calls on the other cameras go on meanwhile.
    pass.deleted.clear();
    StartAdded(pass);
    RaiseEvents(pass);
}

void CameraManager::SweepTable(const std::set<std::u16string>& connected, Reconciliation& pass) {
    std::lock_guard<std::recursive_mutex> guard(lock);
    for (auto it = FailedPaths.begin(); it != FailedPaths.end();) {
        it = connected.count(*it) ? std::next(it) : FailedPaths.erase(it);
    }
    // A row marked disconnected stays gone even when its path is back: the path is then a
    // new plug, which starts as a new camera once the old row is deleted.
    std::vector<int32_t> gone;
    for (const auto& row : devices) {
        if (!connected.count(row.second->DevicePath()) || !row.second->IsConnected()) {
            gone.push_back(row.first);
        }
    }
    for (int32_t deviceId : gone) {
        Device* device = devices[deviceId].get();
        const CameraText name(device->DeviceName());
        std::string path = platform::ToUtf8(device->DevicePath());
        if (device->IsConnected()) {
            ORQ_LOG(INF, "device disconnect: \n    %s\n    %s", name.c_str(), path.c_str());
            device->SetConnected(false);
            pass.changes.push_back({device->CameraInfo(deviceId ^ kCameraIdPattern), 1});
        }
        if (!device->IsSessionOpen()) {
            ORQ_LOG(INF, "delete device object: \n    %s\n    %s", name.c_str(), path.c_str());
            pass.deleted.push_back(std::move(devices[deviceId]));
            devices.erase(deviceId);
        }
    }
    for (const auto& path : connected) {
        bool known = std::any_of(devices.begin(), devices.end(),
                                 [&](const auto& row) { return row.second->DevicePath() == path; });
        if (!known && !FailedPaths.count(path)) pass.added.push_back(path);
    }
}

void CameraManager::StartAdded(Reconciliation& pass) {
    for (const auto& path : pass.added) {
        if (terminating) break;
        int32_t deviceId;
        std::unique_ptr<Device> device;
        {
            std::lock_guard<std::recursive_mutex> guard(lock);
            deviceId = static_cast<int32_t>(++nextId);
            device = std::make_unique<Device>(usb.get(), &config, path, deviceId);
            starting = device.get();
        }
        OrqResult result = device->Initialise();
        // Declared after the device, so that a camera left out of the table is deleted after
        // the mutex is released.
        std::lock_guard<std::recursive_mutex> guard(lock);
        starting = nullptr;
        if (terminating) break;
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "new device initialization failed: %d", result);
            pass.failures.emplace_back(path, result);
            FailedPaths.insert(path);
            continue;
        }
        ORQ_LOG(INF, "new device found: \n    %s\n    %s\n    %s\n    %s",
                CameraText(device->DeviceName()).c_str(),
                platform::ToUtf8(device->DevicePath()).c_str(),
                CameraText(device->OrqmVersion()).c_str(),
                CameraText(device->SerialNumber()).c_str());
        pass.changes.push_back({device->CameraInfo(deviceId ^ kCameraIdPattern), 0});
        devices.emplace(deviceId, std::move(device));
    }
}

void CameraManager::RaiseEvents(const Reconciliation& pass) {
    for (const auto& failure : pass.failures) {
        const std::u16string& path = failure.first;
        OrqResult result = failure.second;
        initErrorEvent.Raise(
            [path, result](OrqCameraInitializationErrorCallback callback, void* context) {
                auto* copy = new OrqChar[256]();
                size_t length = std::min<size_t>(path.size(), 255);
                std::copy(path.begin(), path.begin() + length, copy);
                ORQ_REGISTER_POINTER(copy, [](void* p) { delete[] static_cast<OrqChar*>(p); });
                callback(context, result, copy);
            });
    }
    if (pass.changes.empty()) return;
    const std::vector<ChangeRecord>& changes = pass.changes;
    connectionEvent.Raise([changes](OrqCameraListChangedCallback callback, void* context) {
        for (const ChangeRecord& change : changes) {
            auto* copy = new OrqCameraInfo(change.info);
            ORQ_REGISTER_POINTER(copy, [](void* p) { delete static_cast<OrqCameraInfo*>(p); });
            callback(context, copy, change.state);
        }
    });
}

OrqResult CameraManager::GetCameraList(OrqCameraInfo** list, int* count) {
    // A camera that another thread is starting is listed once it has started.
    RefreshDevices(false);
    std::lock_guard<std::recursive_mutex> guard(lock);
    *count = static_cast<int>(devices.size());
    if (devices.empty()) {
        *list = nullptr;
        return ORQ_OK;
    }
    auto* block = new OrqCameraInfo[devices.size()];
    ORQ_REGISTER_POINTER(block, [](void* p) { delete[] static_cast<OrqCameraInfo*>(p); });
    size_t i = 0;
    for (const auto& row : devices)
        block[i++] = row.second->CameraInfo(row.first ^ kCameraIdPattern);
    *list = block;
    return ORQ_OK;
}

OrqResult CameraManager::OpenSession(int cameraId, OrqSessionHandle* session) {
    int32_t deviceId = static_cast<int32_t>(static_cast<uint32_t>(cameraId) ^ kCameraIdPattern);
    std::lock_guard<std::recursive_mutex> guard(lock);
    auto found = devices.find(deviceId);
    if (found == devices.end()) return ORQ_DEVICE_NOT_READY;
    if (OrqResult started = found->second->CheckStarted()) {
        *session = nullptr;
        return started;
    }
    if (found->second->IsSessionOpen()) {
        *session = nullptr;
        return ORQ_SESSION_BUSY;
    }
    auto flag = found->second->SessionFlag();
    flag->store(true);
    auto* record = new OrqSessionRecord{this, deviceId, std::move(flag)};
    // Closing touches only the flag: no manager lock is taken under the result-memory lock,
    // and a session released after its camera has gone is harmless.
    ORQ_REGISTER_HANDLE(
        record,
        [](void* p) {
            auto* closing = static_cast<OrqSessionRecord*>(p);
            closing->open->store(false);
            delete closing;
        },
        Session);
    *session = record;
    return ORQ_OK;
}

bool CameraManager::IsConnected(int32_t deviceId) {
    std::lock_guard<std::recursive_mutex> guard(lock);
    auto found = devices.find(deviceId);
    return found != devices.end() && found->second->IsConnected();
}

}  // namespace orq
