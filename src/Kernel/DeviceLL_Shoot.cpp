// Taking a picture: the normal shot, which the camera writes to its card and which is found by
// comparing two listings, and the remote shot, whose picture comes to the host in chunks and is
// kept in memory under a negative id.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <list>
#include <new>
#include <string>
#include <thread>

#include "CameraText.h"
#include "Kernel/Bytes.h"
#include "Kernel/DeviceLL.h"
#include "Kernel/ShotGate.h"
#include "Logger.h"

namespace orq {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kStepInterval{100};
constexpr milliseconds kRemotePollInterval{10};
// How long a shot waits for a video call under way to end before it is refused.
constexpr milliseconds kVideoCallWait{5000};
constexpr milliseconds kListingRetrySleep{500};
// A shot whose SHOOT_FINISHED has not come looks at the card after this many event reads
// without it (2 s at the step's pace): a read the camera garbled may have taken the bit with it.
// Counted, not timed, so that a replayed session looks when its recording did.
constexpr int kReadsBetweenCardLooks = 20;
constexpr int kListingAttempts = 5;
// Beyond the largest picture these cameras make, in bytes and in chunks (empty ones included).
constexpr uint64_t kMaxPictureBytes = 64ull << 20;
constexpr int kMaxPictureChunks = 4096;

uint32_t ResponseParam(const std::vector<uint32_t>& params, size_t index) {
    return index < params.size() ? params[index] : 0;
}

// Builds a step that runs 'body' and keeps going after 'interval' while it is not done; when
// done, 'finish' runs with the file.
// The step holds the shot's claim on the card until the file is found or the chain ends; past
// 'limit' it fails with 'overdue'.
ContProcStep RepeatingStep(DeviceLL* device,
                           OrqResult (DeviceLL::*body)(bool& done, OrqFileInfo& file),
                           milliseconds interval, milliseconds limit, const char* overdue,
                           std::function<void(OrqFileInfo)> onCompleted,
                           std::shared_ptr<void> claim) {
    const auto started = std::chrono::steady_clock::now();
    return [device, body, interval, limit, overdue, onCompleted, claim, started](
               ContProc*, milliseconds* delay, OrqResult* result, bool* again) mutable {
        bool done = false;
        OrqFileInfo file{};
        OrqResult status = (device->*body)(done, file);
        if (status != ORQ_OK) {
            *result = status;
            return;
        }
        if (!done && std::chrono::steady_clock::now() - started > limit) {
            ORQ_LOG(ERR, overdue, static_cast<int>(limit.count()));
            *result = ORQ_ERROR;
            return;
        }
        if (!done) {
            *delay = interval;
            *again = true;
            return;
        }
        // Released first: an application told of the shot may start video at once.
        claim.reset();
        if (onCompleted) onCompleted(file);
        device->SetPreviewSuspended(false);
        *result = ORQ_OK;
    };
}

}  // namespace

std::unique_ptr<ContProc> DeviceLL::Shoot(std::function<void(OrqFileInfo)> onCompleted,
                                          std::shared_ptr<ShotTicket> ticket,
                                          std::shared_ptr<void> accepted) {
    bool direct = false;
    if (config.Has(ORQ_PROP_DIRECT_TRANSFER)) {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        auto found = propertyValues.find(ORQ_PROP_DIRECT_TRANSFER);
        direct = found != propertyValues.end() && found->second == 0;
    }

    auto begin = direct ? &DeviceLL::DirectShootBegin : &DeviceLL::ShootBegin;
    auto await = direct ? &DeviceLL::DirectShootAwaitPicture : &DeviceLL::ShootAwaitFile;
    // The remote chain asks whether the picture is ready: paced, not back to back.
    milliseconds awaitInterval = direct ? kRemotePollInterval : kStepInterval;
    const char* overdue = direct ? "Remote capture: picture not ready after %d ms"
                                 : "Shoot: SHOOT_FINISHED not seen after %d ms";

    return std::make_unique<ContProc>(
        [this, begin, await, awaitInterval, overdue, onCompleted = std::move(onCompleted), ticket,
         accepted = std::move(accepted)](ContProc* self, milliseconds* delay, OrqResult* result,
                                         bool* again) mutable {
            std::shared_ptr<void> claim = accepted ? std::move(accepted) : AcceptShot();
            OrqResult status = claim ? (this->*begin)(ticket.get()) : ORQ_ERROR;
            if (ticket) ticket->Report(status);
            if (status == ORQ_TOO_LATE) {
                // Prepared after the agreed moment: no shot, and nothing wrong with the camera.
                SetPreviewSuspended(false);
                return;
            }
            if (status != ORQ_OK) {
                *result = status;
                return;
            }
            // Built first: replacing the running function object destroys its captures.
            ContProcStep following = RepeatingStep(this, await, awaitInterval, operationLimit,
                                                   overdue, onCompleted, std::move(claim));
            self->step = std::move(following);
            *delay = kStepInterval;
            *again = true;
        });
}

std::shared_ptr<void> DeviceLL::AcceptShot() {
    std::lock_guard<std::mutex> guard(captureLock);
    // A start under way has set the flag already: the shot would be refused on the camera thread.
    if (VideoRecording.load()) {
        ORQ_LOG(ERR, "Shooting not supported: video recording started");
        return nullptr;
    }
    ++shotsAccepted;
    return std::shared_ptr<void>(this, [](DeviceLL* self) {
        std::lock_guard<std::mutex> released(self->captureLock);
        --self->shotsAccepted;
        self->captureChanged.notify_all();
    });
}

bool DeviceLL::AwaitCardForShot() {
    std::unique_lock<std::mutex> guard(captureLock);
    // A stop of video may still be listing the card for its movie.
    if (!captureChanged.wait_for(guard, kVideoCallWait, [this] { return !videoCallInFlight; })) {
        ORQ_LOG(ERR, "Shoot: video call in progress");
        return false;
    }
    if (VideoRecording.load()) {
        ORQ_LOG(ERR, "Shooting not supported: video recording started");
        return false;
    }
    return true;
}

OrqResult DeviceLL::ShootBegin(ShotTicket* ticket) {
    if (!AwaitCardForShot()) return ORQ_ERROR;
    ORQ_LOG(INF, "Shoot started on camera");
    ClearCameraEvent(CAMERA_EVENT_SHOOT_FINISHED);
    eventsMissed = false;
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
    if (ticket && !ticket->Arrive()) return ORQ_TOO_LATE;
    if (PTPShoot() != ORQ_OK) return ORQ_ERROR;
    readsBeforeCardLook = kReadsBetweenCardLooks;
    return ORQ_OK;
}

bool DeviceLL::TakeShotFile(OrqFileInfo& file) {
    {
        std::lock_guard<std::mutex> guard(fileTableLock);
        if (latestFileId == -1) return false;
        auto found =
            std::find_if(fileTable.begin(), fileTable.end(),
                         [this](const OrqFileInfo& record) { return record.id == latestFileId; });
        if (found == fileTable.end()) return false;
        file = *found;
    }
    ORQ_LOG(INF, "Shoot Completed:\n    name: %s\n    id:   %d\n    size: %d",
            CameraText(bytes::LowBytes(file.name, 128)).c_str(), file.id,
            static_cast<int>(file.size));
    return true;
}

OrqResult DeviceLL::ShootAwaitFile(bool& done, OrqFileInfo& file) {
    OrqResult result = PTPLoadEvents();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPLoadEvents() failed");
        return result;
    }
    if (!CameraEvent(CAMERA_EVENT_SHOOT_FINISHED)) {
        // A lost event read may have carried the end: the card tells whether the file is there.
        if (eventsMissed.exchange(false)) {
            ORQ_LOG(ERR, "Shoot: event read lost, looking for the file");
        } else {
            // So may one that came back garbled, which nothing tells apart: a look at the card
            // now and then, and a shot whose file is there ends.
            if (--readsBeforeCardLook > 0) return ORQ_OK;
            readsBeforeCardLook = kReadsBetweenCardLooks;
            ORQ_LOG(DEB, "Shoot: SHOOT_FINISHED not seen yet, looking at the card");
            result = PTPUpdateObjectsInfo();
            if (result != ORQ_OK) {
                ORQ_LOG(ERR, "PTPUpdateObjectsInfo() failed");
                return result;
            }
            done = TakeShotFile(file);
            return ORQ_OK;
        }
    }

    PTPMemoryStatistics("SHOOT_FINISHED event");
    // The camera may still be writing the file when it reports the shot: list again a few times.
    result = PTPUpdateObjectsInfo();
    for (int retry = 0;;) {
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "PTPUpdateObjectsInfo() failed");
            return result;
        }
        PTPMemoryStatistics("after PTPUpdateObjectsInfo");
        if (TakeShotFile(file)) {
            done = true;
            return ORQ_OK;
        }
        {
            std::unique_lock<std::mutex> guard(fileTableLock);
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

OrqResult DeviceLL::DirectShootBegin(ShotTicket* ticket) {
    if (!AwaitCardForShot()) return ORQ_ERROR;
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
    if (ticket && !ticket->Arrive()) return ORQ_TOO_LATE;
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
