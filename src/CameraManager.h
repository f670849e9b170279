// The one object behind the SDK: owns the transport and the table of cameras, reconciles that
// table with what the transport sees, and raises the two manager events.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Device.h"
#include "Event.h"
#include "Kernel/UsbLib.h"
#include "SDKConfig.h"

namespace orq {

constexpr uint32_t kCameraIdPattern = 0x0B15FC9A;

struct ChangeRecord {
    OrqCameraInfo info;
    int32_t state;  // 0 connected, 1 disconnected
};

class CameraManager : public IUsbLib_Notify {
public:
    CameraManager();
    ~CameraManager() override;

    void OnDeviceChange() override;
    // wait: whether to wait for a reconciliation under way on another thread; without it the
    // call leaves the work to that one.
    void RefreshDevices(bool wait = true);
    // First step of termination: no event reaches the application any more, and the callbacks
    // already running have returned (except one on the calling thread).
    void StopDeliveries();

    OrqResult GetCameraList(OrqCameraInfo** list, int* count);
    OrqResult OpenSession(int cameraId, OrqSessionHandle* session);
    bool IsConnected(int32_t deviceId);

    // Runs work on the device of a session's internal id with the manager's mutex held; false
    // when there is no such row.
    template <class Work>
    bool WithDevice(int32_t deviceId, Work&& work) {
        std::lock_guard<std::recursive_mutex> guard(lock);
        auto found = devices.find(deviceId);
        if (found == devices.end()) return false;
        work(found->second.get());
        return true;
    }

    const SDKConfig& Config() const { return config; }

    Event<OrqCameraListChangedCallback> connectionEvent;
    Event<OrqCameraInitializationErrorCallback> initErrorEvent;

private:
    // One reconciliation: what the sweep of the table found, then what starting cameras gave.
    struct Reconciliation {
        std::vector<ChangeRecord> changes;
        std::vector<std::unique_ptr<Device>> deleted;  // out of the table, not yet stopped
        std::vector<std::u16string> added;
        std::vector<std::pair<std::u16string, OrqResult>> failures;
    };
    // Under the table's mutex: rows whose camera is gone are marked or taken out, new paths
    // listed.
    void SweepTable(const std::set<std::u16string>& connected, Reconciliation& pass);
    // Starts each new path's camera outside the mutex and puts it in the table.
    void StartAdded(Reconciliation& pass);
    void RaiseEvents(const Reconciliation& pass);

    SDKConfig config;
    std::unique_ptr<UsbLib> usb;
    std::map<int32_t, std::unique_ptr<Device>> devices;
    uint32_t nextId = 0;
    std::recursive_mutex lock;
    // Serialises reconciliations, which start cameras outside the table's mutex. Re-entrant, as
    // the events of a reconciliation are raised inside it and a callback may list the cameras.
    // (Not a timed mutex: the thread sanitizer cannot follow its timed lock.)
    class RefreshGate {
    public:
        bool Enter(std::chrono::milliseconds wait);
        void Leave();

    private:
        std::mutex lock;
        std::condition_variable free;
        std::thread::id owner;
        int depth = 0;
    };
    RefreshGate refreshGate;
    // The camera being started by the reconciliation under way, so that termination can close
    // it; guarded by lock.
    Device* starting = nullptr;
    std::set<std::u16string> FailedPaths;
    std::atomic<bool> terminating{false};
};

}  // namespace orq

// The record behind OrqSessionHandle.
struct OrqSessionRecord {
    orq::CameraManager* manager;
    int32_t deviceId;
    std::shared_ptr<std::atomic<bool>> open;  // the claimed device's session flag
};

// The record behind OrqCameraManagerHandle.
struct OrqCameraManagerCell {
    orq::CameraManager* manager;
};
