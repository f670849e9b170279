// Taking a picture: the normal shot, which the camera writes to its card and which is found by
// comparing two listings, and the remote shot, whose picture comes to the host in chunks and is
// kept in memory under a negative id.
#include <chrono>
#include <cstdint>
#include <list>
#include <new>
#include <string>
#include <thread>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kStepInterval{100};
constexpr milliseconds kListingRetrySleep{500};
constexpr int kListingAttempts = 5;
// Beyond the largest picture these cameras make, in bytes and in chunks (empty ones included).
constexpr uint64_t kMaxPictureBytes = 64ull << 20;
constexpr int kMaxPictureChunks = 4096;

// Each 16-bit unit narrowed to its low byte.
std::string NarrowName(const OrqChar* name) {
    std::string out;
    for (size_t i = 0; i < 128 && name[i]; ++i) out += static_cast<char>(name[i] & 0xFF);
    return out;
}

uint32_t ResponseParam(const std::vector<uint32_t>& params, size_t index) {
    return index < params.size() ? params[index] : 0;
}

// Builds a step that runs 'body' and keeps going after 'interval' while it is not done; when
// done, 'finish' runs with the file.
ContProcStep RepeatingStep(DeviceLL* device,
                           OrqResult (DeviceLL::*body)(bool& done, OrqFileInfo& file),
                           milliseconds interval, std::function<void(OrqFileInfo)> onCompleted) {
    return [device, body, interval, onCompleted](ContProc*, milliseconds* delay, OrqResult* result,
                                                 bool* again) {
        bool done = false;
        OrqFileInfo file{};
        OrqResult status = (device->*body)(done, file);
        if (status != ORQ_OK) {
            *result = status;
            return;
        }
        if (!done) {
            *delay = interval;
            *again = true;
            return;
        }
        if (onCompleted) onCompleted(file);
        device->SetPreviewSuspended(false);
        *result = ORQ_OK;
    };
}

}  // namespace

std::unique_ptr<ContProc> DeviceLL::Shoot(std::function<void(OrqFileInfo)> onCompleted) {
    bool direct = false;
    if (config.Has(ORQ_PROP_DIRECT_TRANSFER)) {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        auto found = propertyValues.find(ORQ_PROP_DIRECT_TRANSFER);
        direct = found != propertyValues.end() && found->second == 0;
    }

    auto begin = direct ? &DeviceLL::DirectShootBegin : &DeviceLL::ShootBegin;
    auto await = direct ? &DeviceLL::DirectShootAwaitPicture : &DeviceLL::ShootAwaitFile;
    // The remote chain polls back to back once started; its own step sets the pace.
    milliseconds awaitInterval = direct ? milliseconds(0) : kStepInterval;
    ContProcStep next = RepeatingStep(this, await, awaitInterval, std::move(onCompleted));

    return std::make_unique<ContProc>(
        [this, begin, next](ContProc* self, milliseconds* delay, OrqResult* result, bool* again) {
            OrqResult status = (this->*begin)();
            if (status != ORQ_OK) {
                *result = status;
                return;
            }
            // Copied first: replacing the running function object destroys its captures.
            ContProcStep following = next;
            self->step = std::move(following);
            *delay = kStepInterval;
            *again = true;
        });
}

OrqResult DeviceLL::ShootBegin() {
    if (VideoRecording.load()) {
        ORQ_LOG(ERR, "Shooting not supported: video recording started");
        return ORQ_ERROR;
    }
    ORQ_LOG(INF, "Shoot started on camera");
    ClearCameraEvent(CAMERA_EVENT_SHOOT_FINISHED);
    SetPreviewSuspended(true);

    OrqResult result = SetPreShootProperty();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "SetPreShootProperty() failed");
        return result;
    }
    // The baseline against which the shot's file is recognised.
    result = PTPUpdateObjectsInfo();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPUpdateObjectsInfo() failed");
        return result;
    }
    ORQ_LOG(DEB, "Shoot transaction");
    if (PTPShoot() != ORQ_OK) return ORQ_ERROR;
    return ORQ_OK;
}

OrqResult DeviceLL::ShootAwaitFile(bool& done, OrqFileInfo& file) {
    OrqResult result = PTPLoadEvents();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPLoadEvents() failed");
        return result;
    }
    if (!CameraEvent(CAMERA_EVENT_SHOOT_FINISHED)) return ORQ_OK;

    PTPMemoryStatistics("SHOOT_FINISHED event");
    // The camera may still be writing the file when it reports the shot: list again a few times.
    result = PTPUpdateObjectsInfo();
    for (int retry = 0;;) {
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "PTPUpdateObjectsInfo() failed");
            return result;
        }
        PTPMemoryStatistics("after PTPUpdateObjectsInfo");
        {
            std::unique_lock<std::mutex> guard(fileTableLock);
            if (!fileTable.empty() && latestFileId != -1) {
                for (const OrqFileInfo& record : fileTable) {
                    if (record.id != latestFileId) continue;
                    file = record;
                    guard.unlock();
                    ORQ_LOG(INF, "Shoot Completed:\n    name: %s\n    id:   %d\n    size: %d",
                            NarrowName(file.name).c_str(), file.id, static_cast<int>(file.size));
                    done = true;
                    return ORQ_OK;
                }
            }
            if (++retry >= kListingAttempts) {
                ORQ_LOG(ERR, "Shoot: new file not found");
                return ORQ_ERROR;
            }
            ORQ_LOG(ERR, "Shoot: new file not found. Retry: %d", retry);
            // Held on purpose: readers of the list wait for the card to settle.
            std::this_thread::sleep_for(kListingRetrySleep);
        }
        result = PTPUpdateObjectsInfo();
    }
}

OrqResult DeviceLL::DirectShootBegin() {
    if (VideoRecording.load()) {
        ORQ_LOG(ERR, "Shooting not supported: video recording started");
        return ORQ_ERROR;
    }
    ORQ_LOG(INF, "Shoot started on camera (remote version)");
    SetPreviewSuspended(true);

    OrqResult result = SetPreShootProperty();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "SetPreShootProperty() failed");
        return result;
    }
    result = PTPUpdateObjectsInfo();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPUpdateObjectsInfo() failed");
        return result;
    }
    PTPMemoryStatistics("pre shoot transaction");
    ORQ_LOG(DEB, "Shoot transaction (remote version)");
    if (PTPRemoteCaptureStart() != ORQ_OK) return ORQ_ERROR;
    PTPMemoryStatistics("after shoot transaction");
    return ORQ_OK;
}

OrqResult DeviceLL::DirectShootAwaitPicture(bool& done, OrqFileInfo& file) {
    ShootDirectEvent();
    bool ready = false;
    if (PTPRemoteCaptureIsReady(ready) != ORQ_OK) return ORQ_ERROR;
    PTPMemoryStatistics("after PTP_ORQM_RemoteCaptureIsReady");
    if (!ready) return ORQ_OK;

    // Not an error: the line has always been written at this level.
    ORQ_LOG(ERR, "Remote capture ready");
    OrqResult result = DirectShootReceive(file);
    done = result == ORQ_OK;
    return result;
}

OrqResult DeviceLL::DirectShootReceive(OrqFileInfo& file) {
    std::list<PtpDataBlock> chunks;
    uint64_t total = 0;
    int count = 0;
    try {
        for (bool more = true; more;) {
            if (count >= kMaxPictureChunks) {
                ORQ_LOG(ERR, "RemoteCaptureGetData: more than %d chunks", kMaxPictureChunks);
                return ORQ_ERROR;
            }
            PtpDataBlock chunk;
            std::vector<uint32_t> params;
            if (PTPRemoteCaptureGetData(chunk, params, kMaxPictureBytes - total) != ORQ_OK)
                return ORQ_ERROR;
            PTPMemoryStatistics("after PTP_ORQM_RemoteCaptureGetData");
            ORQ_LOG(DEB, "RemoteCaptureGetData: %d %d %d",
                    static_cast<int>(ResponseParam(params, 0)),
                    static_cast<int>(ResponseParam(params, 1)),
                    static_cast<int>(ResponseParam(params, 2)));
            ShootDirectEvent();
            if (!chunk.data) chunk.size = 0;
            total += chunk.size;
            chunks.push_back(std::move(chunk));
            ++count;
            ORQ_LOG(DEB, "total chunks: %d", count);
            more = ResponseParam(params, 1) != 0;
        }
    } catch (const std::bad_alloc&) {
        // A camera that never ends its stream exhausts the host's memory before anything else.
        ORQ_LOG(ERR, "PTP_ORQM_RemoteCaptureGetData failed");
        return ORQ_ERROR;
    }

    // The id is taken only now, so that a failed transfer uses none.
    int32_t id = NextDirectFileId--;
    {
        std::lock_guard<std::recursive_mutex> guard(directTransferLock);
        DirectTransferFiles[id] = std::move(chunks);
        ORQ_LOG(INF, "Total DirectTransfer buffered files: %d",
                static_cast<int>(DirectTransferFiles.size()));
    }

    file = OrqFileInfo{};
    file.id = id;
    std::string name = "direct_" + std::to_string(-static_cast<int64_t>(id)) + ".jpg";
    for (size_t i = 0; i < name.size() && i + 1 < sizeof(file.name) / sizeof(file.name[0]); ++i)
        file.name[i] = static_cast<OrqChar>(name[i]);
    file.size = static_cast<uint32_t>(total);
    ORQ_LOG(INF, "Direct Shoot Completed:\n    name: %s\n    id:   %d\n    size: %d", name.c_str(),
            id, static_cast<int>(file.size));
    return ORQ_OK;
}

}  // namespace orq
