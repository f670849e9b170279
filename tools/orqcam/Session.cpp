#include "Session.h"

#include "Output.h"

namespace orqcam {

SdkLibrary sdk;

long long MonotonicMs() {
    static const auto start = std::chrono::steady_clock::now();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

Camera::Camera(int index, const OrqCameraInfo& info) : index(index), info(info) {}

// The session and subscriptions are left to OrqTerminateSDK, which releases them after the
// camera threads have stopped: freed earlier, a callback already under way could still reach
// this object. Cameras are destroyed after termination.
Camera::~Camera() = default;

std::string Camera::Name() const {
    return Utf8(info.name);
}

OrqResult Camera::Open(OrqCameraManagerHandle manager) {
    OrqResult opened = sdk.OpenSession(manager, static_cast<int>(info.id), &session);
    if (opened != ORQ_OK) {
        session = nullptr;
        return opened;
    }
    subscriptions = {
        sdk.ShootCompletedSubscribe(session, OnShoot, this),
        sdk.DownloadCompletedSubscribe(session, OnDownload, this),
        sdk.PropertyChangedSubscribe(session, OnProperty, this),
        sdk.PropertyListChangedSubscribe(session, OnPropertyList, this),
        sdk.ZoomChangedSubscribe(session, OnZoomChanged, this),
        sdk.ZoomCompletedSubscribe(session, OnZoomCompleted, this),
        sdk.FocusChangedSubscribe(session, OnFocus, this),
        sdk.NewPreviewFrameSubscribe(session, OnPreview, this),
        sdk.CameraErrorSubscribe(session, OnError, this),
    };
    return ORQ_OK;
}

void Camera::SetEventSink(EventSink newSink) {
    std::lock_guard<std::mutex> guard(lock);
    sink = std::move(newSink);
}

void Camera::SetEventTap(EventSink newTap) {
    std::lock_guard<std::mutex> guard(lock);
    tap = std::move(newTap);
}

void Camera::Tell(const std::string& kind, const std::string& text, const std::string& json) {
    EventSink copy, tapped;
    {
        std::lock_guard<std::mutex> guard(lock);
        copy = sink;
        tapped = tap;
    }
    if (copy) copy(*this, kind, text, json);
    if (tapped) tapped(*this, kind, text, json);
}

bool Camera::Enter() {
    std::lock_guard<std::mutex> guard(lock);
    if (closed) return false;
    ++inside;
    return true;
}

void Camera::Leave() {
    {
        std::lock_guard<std::mutex> guard(lock);
        --inside;
    }
    changed.notify_all();
}

void Camera::Close() {
    std::unique_lock<std::mutex> guard(lock);
    closed = true;
    sink = nullptr;
    tap = nullptr;
    // A callback's SDK calls are short; the bound only keeps a stuck one from hanging us.
    changed.wait_for(guard, std::chrono::seconds(10), [this] { return inside == 0; });
}

Camera::Counts Camera::Seen() {
    std::lock_guard<std::mutex> guard(lock);
    return counts;
}

OrqResult Camera::Failure() {
    std::lock_guard<std::mutex> guard(lock);
    return failure;
}

OrqResult Camera::WaitUntil(const std::function<bool(const Counts&)>& done, int timeoutMs,
                            bool* timedOut) {
    *timedOut = false;
    std::unique_lock<std::mutex> guard(lock);
    bool ended = changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                                  [&] { return failure != ORQ_OK || done(counts); });
    if (failure != ORQ_OK) return failure;
    if (!ended) {
        *timedOut = true;
        return ORQ_NOT_READY;
    }
    return ORQ_OK;
}

OrqResult Camera::Drain(int timeoutMs, bool* timedOut) {
    *timedOut = false;
    int zoom = 0;
    OrqResult result = sdk.GetZoom(session, &zoom);
    int before = Seen().zoomCompleted;
    if (result == ORQ_OK) result = sdk.SetZoom(session, zoom);
    if (result != ORQ_OK) return result;
    return WaitUntil([before](const Counts& now) { return now.zoomCompleted > before; }, timeoutMs,
                     timedOut);
}

std::vector<FileRecord> Camera::TakeShots() {
    std::lock_guard<std::mutex> guard(lock);
    return std::move(shots);
}

std::vector<std::pair<int, std::string>> Camera::TakeDownloads() {
    std::lock_guard<std::mutex> guard(lock);
    return std::move(downloads);
}

void Camera::OnShoot(void* context, OrqFileInfo* file) {
    auto* self = static_cast<Camera*>(context);
    FileRecord record;
    if (file) record = FileRecord{file->id, Utf8(file->name), file->size};
    // Once closed, termination releases the record itself.
    if (self->Enter()) {
        sdk.Free(file);
        self->Leave();
    }
    {
        std::lock_guard<std::mutex> guard(self->lock);
        self->shots.push_back(record);
        ++self->counts.shots;
    }
    self->changed.notify_all();
    self->Tell("shot",
               "shot " + record.name + " (id " + std::to_string(record.id) + ", " +
                   std::to_string(record.size) + " bytes)",
               JsonObject({{"id", JsonNumber(record.id)},
                           {"name", JsonString(record.name)},
                           {"size", JsonNumber(record.size)}}));
}

void Camera::OnDownload(void* context, int fileId, OrqChar* path) {
    auto* self = static_cast<Camera*>(context);
    std::string text = Utf8(path);
    if (self->Enter()) {
        sdk.Free(path);
        self->Leave();
    }
    {
        std::lock_guard<std::mutex> guard(self->lock);
        self->downloads.emplace_back(fileId, text);
        ++self->counts.downloads;
    }
    self->changed.notify_all();
    self->Tell("download", "downloaded " + std::to_string(fileId) + " to " + text,
               JsonObject({{"id", JsonNumber(fileId)}, {"path", JsonString(text)}}));
}

void Camera::OnProperty(void* context, int propertyId) {
    auto* self = static_cast<Camera*>(context);
    if (!self->Enter()) return;
    int value = 0;
    OrqResult read = sdk.GetPropertyData(self->session, propertyId, &value);
    OrqChar* name = nullptr;
    std::string property = sdk.GetPropertyName(propertyId, &name) == ORQ_OK
                               ? Utf8(name)
                               : "property " + std::to_string(propertyId);
    std::string shown = std::to_string(value);
    if (sdk.GetPropertyValName(propertyId, value, &name) == ORQ_OK) shown = Utf8(name);
    if (read != ORQ_OK) shown = ResultName(read);
    self->Tell("property", property + " = " + shown,
               JsonObject({{"id", JsonNumber(propertyId)},
                           {"name", JsonString(property)},
                           {"value", JsonNumber(value)},
                           {"valueName", JsonString(shown)}}));
    self->Leave();
}

void Camera::OnPropertyList(void* context) {
    static_cast<Camera*>(context)->Tell("property-list", "properties on offer changed", "{}");
}

void Camera::OnZoomChanged(void* context) {
    auto* self = static_cast<Camera*>(context);
    if (!self->Enter()) return;
    int zoom = 0;
    sdk.GetZoom(self->session, &zoom);
    self->Tell("zoom", "zoom " + std::to_string(zoom), JsonObject({{"zoom", JsonNumber(zoom)}}));
    self->Leave();
}

void Camera::OnZoomCompleted(void* context) {
    auto* self = static_cast<Camera*>(context);
    {
        std::lock_guard<std::mutex> guard(self->lock);
        ++self->counts.zoomCompleted;
    }
    self->changed.notify_all();
    self->Tell("zoom-completed", "zoom completed", "{}");
}

void Camera::OnFocus(void* context) {
    auto* self = static_cast<Camera*>(context);
    if (!self->Enter()) return;
    int focus = 0;
    sdk.GetFocus(self->session, &focus);
    self->Tell("focus", "focus " + std::to_string(focus),
               JsonObject({{"focus", JsonNumber(focus)}}));
    self->Leave();
}

void Camera::OnPreview(void* context) {
    auto* self = static_cast<Camera*>(context);
    {
        std::lock_guard<std::mutex> guard(self->lock);
        ++self->counts.previewFrames;
    }
    self->changed.notify_all();
    self->Tell("preview", "live-view frame", "{}");
}

void Camera::OnError(void* context, OrqResult result) {
    auto* self = static_cast<Camera*>(context);
    {
        std::lock_guard<std::mutex> guard(self->lock);
        self->failure = result == ORQ_OK ? ORQ_ERROR : result;
    }
    self->changed.notify_all();
    self->Tell("camera-error", std::string("camera error ") + ResultName(result),
               JsonObject({{"result", JsonString(ResultName(result))}}));
}

}  // namespace orqcam
