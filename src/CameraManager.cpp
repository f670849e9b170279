#include "CameraManager.h"

#include <algorithm>

#include "Logger.h"
#include "memmgr.h"

namespace orq {

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
    // being emptied. The transport itself is stopped last: the cameras close through it.
    terminating = true;
    {
        std::lock_guard<std::recursive_mutex> guard(lock);
        for (auto& row : devices) row.second->ForceCloseUSB();
    }
    std::map<int32_t, std::unique_ptr<Device>> gone;
    {
        std::lock_guard<std::recursive_mutex> guard(lock);
        gone.swap(devices);
    }
    gone.clear();
    usb.reset();
}

void CameraManager::OnDeviceChange() {
    RefreshDevices();
}

void CameraManager::RefreshDevices() {
    std::vector<ChangeRecord> changes;
    {
        std::lock_guard<std::recursive_mutex> guard(lock);
        if (terminating) return;
        std::set<std::u16string> connected = usb->GetAllConnectedDevicePaths();
        for (auto it = FailedPaths.begin(); it != FailedPaths.end();) {
            it = connected.count(*it) ? std::next(it) : FailedPaths.erase(it);
        }
        std::vector<std::u16string> added;
        for (const auto& path : connected) {
            bool known = std::any_of(devices.begin(), devices.end(), [&](const auto& row) {
                return row.second->DevicePath() == path;
            });
            if (!known) added.push_back(path);
        }
        std::vector<int32_t> gone;
        for (const auto& row : devices) {
            if (!connected.count(row.second->DevicePath())) gone.push_back(row.first);
        }
        for (int32_t deviceId : gone) {
            Device* device = devices[deviceId].get();
            std::string name = platform::ToUtf8(device->DeviceName());
            std::string path = platform::ToUtf8(device->DevicePath());
            if (device->IsConnected()) {
                ORQ_LOG(INF, "device disconnect: \n    %s\n    %s", name.c_str(), path.c_str());
                device->SetConnected(false);
                changes.push_back({device->CameraInfo(deviceId ^ kCameraIdPattern), 1});
            }
            if (!device->IsSessionOpen()) {
                ORQ_LOG(INF, "delete device object: \n    %s\n    %s", name.c_str(), path.c_str());
                std::unique_ptr<Device> owned = std::move(devices[deviceId]);
                devices.erase(deviceId);
                owned.reset();
            }
        }
        for (const auto& path : added) {
            if (FailedPaths.count(path)) continue;
            int32_t deviceId = static_cast<int32_t>(++nextId);
            auto device = std::make_unique<Device>(usb.get(), &config, path, deviceId);
            OrqResult result = device->Initialise();
            if (result != ORQ_OK) {
                ORQ_LOG(ERR, "new device initialization failed: %d", result);
                initErrorEvent.Raise([path, result](OrqCameraInitializationErrorCallback callback,
                                                    void* context) {
                    auto* copy = new OrqChar[256]();
                    size_t length = std::min<size_t>(path.size(), 255);
                    std::copy(path.begin(), path.begin() + length, copy);
                    ORQ_REGISTER_POINTER(copy, [](void* p) { delete[] static_cast<OrqChar*>(p); });
                    callback(context, result, copy);
                });
                FailedPaths.insert(path);
                continue;
            }
            ORQ_LOG(INF, "new device found: \n    %s\n    %s\n    %s\n    %s",
                    platform::ToUtf8(device->DeviceName()).c_str(),
                    platform::ToUtf8(device->DevicePath()).c_str(),
                    platform::ToUtf8(device->OrqmVersion()).c_str(),
                    platform::ToUtf8(device->SerialNumber()).c_str());
            changes.push_back({device->CameraInfo(deviceId ^ kCameraIdPattern), 0});
            devices.emplace(deviceId, std::move(device));
        }
    }
    if (changes.empty()) return;
    connectionEvent.Raise([changes](OrqCameraListChangedCallback callback, void* context) {
        for (const ChangeRecord& change : changes) {
            auto* copy = new OrqCameraInfo(change.info);
            ORQ_REGISTER_POINTER(copy, [](void* p) { delete static_cast<OrqCameraInfo*>(p); });
            callback(context, copy, change.state);
        }
    });
}

OrqResult CameraManager::GetCameraList(OrqCameraInfo** list, int* count) {
    RefreshDevices();
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
    ORQ_REGISTER_POINTER(record, [](void* p) {
        auto* closing = static_cast<OrqSessionRecord*>(p);
        closing->open->store(false);
        delete closing;
    });
    *session = record;
    return ORQ_OK;
}

bool CameraManager::IsConnected(int32_t deviceId) {
    std::lock_guard<std::recursive_mutex> guard(lock);
    auto found = devices.find(deviceId);
    return found != devices.end() && found->second->IsConnected();
}

}  // namespace orq
