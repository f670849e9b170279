// Start and stop of a movie. Both run on the application's thread; ptpLock keeps their
// transactions whole beside the main loop's.
#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

// Marks a start or stop of video under way, or refuses it while an accepted shot, queued or on
// the camera, owns the card's next file. `recording`, when given, is set with the mark, so that
// no shot is accepted between the two.
class VideoCall {
public:
    VideoCall(std::mutex& lock, std::condition_variable& changed, const int& shots, bool& call,
              std::atomic<bool>* recording = nullptr)
        : lock(lock), changed(changed), call(call) {
        std::lock_guard<std::mutex> guard(lock);
        busy = shots > 0 || call;
        if (busy) return;
        call = true;
        if (recording) recording->store(true);
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
    // Recording is set first, so that a shot asked for while the recording starts is refused.
    VideoCall call(captureLock, captureChanged, shotsAccepted, videoCallInFlight, &VideoRecording);
    if (call.Busy()) {
        ORQ_LOG(ERR, "PTPStartVideo: shot in progress");
        return ORQ_SESSION_BUSY;
    }

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
    VideoCall call(captureLock, captureChanged, shotsAccepted, videoCallInFlight);
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
