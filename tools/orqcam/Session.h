// One open camera: its session, every event it raises, and waits on them with a bound.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "SdkLibrary.h"

namespace orqcam {

extern SdkLibrary sdk;

// Milliseconds of a monotonic clock since orqcam started.
long long MonotonicMs();

struct FileRecord {
    int id = 0;
    std::string name;
    uint32_t size = 0;
};

class Camera {
public:
    // What happened on this camera, as one line of text and its JSON object.
    using EventSink = std::function<void(Camera&, const std::string& kind, const std::string& text,
                                         const std::string& json)>;

    Camera(int index, const OrqCameraInfo& info);
    ~Camera();  // only after OrqTerminateSDK
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    OrqResult Open(OrqCameraManagerHandle manager);
    OrqSessionHandle Session() const { return session; }
    int Index() const { return index; }
    const OrqCameraInfo& Info() const { return info; }
    std::string Name() const;
    void SetEventSink(EventSink sink);
    // A second listener beside the sink, told after it: orqcam node beside the server's page.
    void SetEventTap(EventSink tap);

    // Counters of events so far; a wait names the count it has seen and waits for more.
    struct Counts {
        int shots = 0, downloads = 0, zoomCompleted = 0, previewFrames = 0;
    };
    Counts Seen();
    // Waits until done() holds, the camera fails, or the timeout passes. Returns ORQ_OK,
    // the camera's failure, or ORQ_NOT_READY for a timeout (told apart by *timedOut).
    OrqResult WaitUntil(const std::function<bool(const Counts&)>& done, int timeoutMs,
                        bool* timedOut);
    // Waits until every request queued so far has reached the camera: queues a zoom to where
    // the lens is, which the camera finishes after all that was queued before it.
    OrqResult Drain(int timeoutMs, bool* timedOut);

    // Before OrqTerminateSDK: from here on callbacks make no SDK call, and those under way
    // have ended. Termination releases the session before it stops the camera's thread, so a
    // callback still calling in with the session would reach freed memory.
    void Close();

    std::vector<FileRecord> TakeShots();
    std::vector<std::pair<int, std::string>> TakeDownloads();
    OrqResult Failure();

private:
    static void OnShoot(void* context, OrqFileInfo* file);
    static void OnDownload(void* context, int fileId, OrqChar* path);
    static void OnProperty(void* context, int propertyId);
    static void OnPropertyList(void* context);
    static void OnZoomChanged(void* context);
    static void OnZoomCompleted(void* context);
    static void OnFocus(void* context);
    static void OnPreview(void* context);
    static void OnError(void* context, OrqResult result);
    void Tell(const std::string& kind, const std::string& text, const std::string& json);
    // Brackets a callback's calls into the SDK; false once closed.
    bool Enter();
    void Leave();

    int index;
    OrqCameraInfo info;
    OrqSessionHandle session = nullptr;
    std::vector<OrqSubscription> subscriptions;

    std::mutex lock;
    std::condition_variable changed;
    Counts counts;
    OrqResult failure = ORQ_OK;
    bool closed = false;
    int inside = 0;  // callbacks between Enter and Leave
    std::vector<FileRecord> shots;
    std::vector<std::pair<int, std::string>> downloads;
    EventSink sink;
    EventSink tap;
};

}  // namespace orqcam
