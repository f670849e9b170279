// Start and stop of a movie. Both run on the application's thread; ptpLock keeps their
// transactions whole beside the main loop's.
#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

OrqResult DeviceLL::PTPStartVideo() {
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
