// Zoom: the one control that runs as a multi-step operation of the main loop, since the lens
// reports its arrival through an event bit and not in the answer to the command. Also the upward
// report of a lens position, which focus shares.
#include <algorithm>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

constexpr std::chrono::milliseconds kZoomPollDelay(100);

}  // namespace

OrqResult DeviceLL::ReadZoom(int32_t& step) {
    int32_t value = 0;
    // The wrapper logs "PTP_ORQM_GetZoom failed".
    if (PTPGetZoom(value) != ORQ_OK) return ORQ_ERROR;
    // A negative value is passed on as the camera sent it.
    step = std::min(value, config.maxZoom);
    return ORQ_OK;
}

OrqResult DeviceLL::UpdateZoom() {
    int32_t value = 0;
    if (config.maxZoom != 0) {
        OrqResult result = ReadZoom(value);
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "Get zoom failed");
            return result;
        }
    }
    if (AdoptLens(zoom, value, "zoom")) ReportZoom();
    return ORQ_OK;
}

void DeviceLL::ReportZoom() {
    ReportLens(zoom, reportedZoom, "zoom", &DeviceLL::OnZoomChanged);
}

bool DeviceLL::AdoptLens(int32_t& held, int32_t position, const char* what) {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    if (position == held) return false;
    held = position;
    ORQ_LOG(INF, "%s changed from camera: %d", what, position);
    return true;
}

void DeviceLL::ReportLens(const int32_t& held, int32_t& reported, const char* what,
                          void (DeviceLL::*notify)()) {
    int32_t value = 0;
    {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        if (held == reported) return;
        reported = held;
        value = held;
    }
    ORQ_LOG(INF, "%s changed: %d", what, value);
    (this->*notify)();
}

int32_t DeviceLL::GetZoom() {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    return zoom;
}

std::unique_ptr<ContProc> DeviceLL::CreateZoomProc(int32_t position) {
    const int32_t step = std::max(std::min(position, config.maxZoom), 0);

    // Repeated every 100 ms until the camera raises the zoom-finished bit.
    const auto started = std::chrono::steady_clock::now();
    ContProcStep waiting = [this, step, started](ContProc*, std::chrono::milliseconds* delay,
                                                 OrqResult* result, bool* again) {
        OrqResult loaded = PTPLoadEvents();
        if (loaded != ORQ_OK) {
            ORQ_LOG(ERR, "PTPLoadEvents() failed");
            *result = loaded;
            return;
        }
        bool finished = CameraEvent(CAMERA_EVENT_ZOOM_FINISHED);
        if (!finished && eventsMissed) {
            // The bit may have gone with a lost event read: the lens tells where it is.
            int32_t position = 0;
            if (ReadZoom(position) != ORQ_OK) {
                *result = ORQ_ERROR;
                return;
            }
            finished = position == step;
        }
        if (!finished && std::chrono::steady_clock::now() - started > operationLimit) {
            ORQ_LOG(ERR, "Zoom: zoom finished not seen after %d ms",
                    static_cast<int>(operationLimit.count()));
            *result = ORQ_ERROR;
            return;
        }
        if (!finished) {
            *delay = kZoomPollDelay;
            *again = true;
            return;
        }
        ORQ_LOG(INF, "zoom finished for: %d", step);
        {
            // The camera is not asked where the lens stopped: the request is taken as reached.
            std::lock_guard<std::recursive_mutex> guard(propertyLock);
            zoom = step;
        }
        OnZoomCompleted();
        ReportZoom();
        *result = ORQ_OK;
    };

    auto proc = std::make_unique<ContProc>(
        [this, step, waiting = std::move(waiting)](ContProc* self, std::chrono::milliseconds* delay,
                                                   OrqResult* result, bool* again) {
            // Cleared before the command, so that a stale bit cannot end the new wait.
            ClearCameraEvent(CAMERA_EVENT_ZOOM_FINISHED);
            eventsMissed = false;
            ORQ_LOG(DEB, "Set zoom on camera: %d", step);
            // The wrapper logs "PTP_ORQM_SetZoom failed".
            if (PTPSetZoom(step) != ORQ_OK) {
                *result = ORQ_ERROR;
                return;
            }
            *delay = kZoomPollDelay;
            *again = true;
            // Replaces this very closure: nothing captured may be touched after the assignment.
            ContProcStep next = waiting;
            self->step = std::move(next);
        });
    return proc;
}

}  // namespace orq
