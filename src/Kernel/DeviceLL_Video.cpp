// Start and stop of a movie. Both run on the application's thread; ptpLock keeps their
// transactions whole beside the main loop's.
#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

// Marks a start or stop of video under way, or refuses it while a shot owns the card's next file.
class VideoCall {
public:
    VideoCall(std::mutex& lock, std::condition_variable& changed, bool& shot, bool& call)
        : lock(lock), changed(changed), call(call) {
        std::lock_guard<std::mutex> guard(lock);
        busy = shot || call;
        if (!busy) call = true;
    }
    ~VideoCall() {
        if (busy) return;
        std::lock_guard<std::mutex> guard(lock);
        call = false;
        changed.notify_all();
    }
    bool Busy() const { return busy; }

private:
    std::mutex& lock;
    std::condition_variable& changed;
    bool& call;
    bool busy = false;
};

}  // namespace

OrqResult DeviceLL::PTPStartVideo() {
    VideoCall call(captureLock, captureChanged, shotInFlight, videoCallInFlight);
    if (call.Busy()) {
        ORQ_LOG(ERR, "PTPStartVideo: shot in progress");
        return ORQ_SESSION_BUSY;
    }
    // Set first, so that a shot queued while the recording starts is already refused.
    VideoRecording.store(true);

    // The baseline against which the movie's file is recognised at the stop.
    OrqResult result = PTPUpdateObjectsInfo();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPUpdateObjectsInfo() failed");
        VideoRecording.store(false);
        return result;
    }
    if (PTPStartVideoRequest() != ORQ_OK) {
        VideoRecording.store(false);
        return ORQ_ERROR;
    }
    return ORQ_OK;
}

OrqResult DeviceLL::PTPStopVideo(OrqFileInfo* file) {
    VideoCall call(captureLock, captureChanged, shotInFlight, videoCallInFlight);
    if (call.Busy()) {
        ORQ_LOG(ERR, "PTPStopVideo: shot in progress");
        return ORQ_SESSION_BUSY;
    }
    // A refused stop leaves the camera taken as recording.
    if (PTPStopVideoRequest() != ORQ_OK) return ORQ_ERROR;
    VideoRecording.store(false);

    OrqResult result = PTPUpdateObjectsInfo();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPUpdateObjectsInfo() failed");
        return result;
    }
    std::lock_guard<std::mutex> guard(fileTableLock);
    if (fileTable.empty() || latestFileId == -1) {
        ORQ_LOG(ERR, "PTPStopVideo: new file not found");
        return ORQ_ERROR;
    }
    for (const OrqFileInfo& record : fileTable) {
        if (record.id != latestFileId) continue;
        if (file) *file = record;
        return ORQ_OK;
    }
    return ORQ_ERROR;
}

}  // namespace orq
