// What orqcam serve shares between its HTTP threads: each camera's newest live-view JPEG, its
// viewers, its recent shots, and the events that go out to every page.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Session.h"

namespace orqcam {

using Jpeg = std::shared_ptr<const std::string>;

struct Shot {
    int id = 0;
    std::string name;
    uint32_t size = 0;
    Jpeg thumb;  // the live view just before the shot, when someone was watching
};

// One camera as the server sees it.
struct Feed {
    Camera* camera = nullptr;
    std::mutex work;  // one shot, download, delete or recording at a time
    std::mutex lock;  // the members below
    std::condition_variable fresh;
    Jpeg jpeg;
    uint64_t sequence = 0;  // of jpeg; 0 before the first
    int viewers = 0;
    bool pending = false;  // a frame waits to be encoded
    std::deque<Shot> shots;
    std::set<int> deleted;  // still listed by the SDK until the next listing
};

class Hub {
public:
    // Limits: streams (live views and event streams together) and events queued per page.
    static constexpr int kMaxStreams = 64;
    static constexpr size_t kMaxQueuedEvents = 256;
    static constexpr size_t kShotsKept = 16;

    explicit Hub(const std::vector<Camera*>& cameras);
    ~Hub();
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    size_t Count() const { return feeds.size(); }
    Feed& At(size_t index) { return *feeds[index]; }

    // A stream slot; false when all are taken or the server stops.
    bool OpenStream();
    void CloseStream();

    // Live view runs on a camera while it has viewers.
    void AddViewer(Feed& feed);
    void RemoveViewer(Feed& feed);
    // A frame newer than *sequence, waiting up to waitMs; null on timeout or stop.
    Jpeg NextFrame(Feed& feed, uint64_t* sequence, int waitMs);

    struct Listener {
        std::deque<std::string> queue;
        bool overflowed = false;
    };
    std::shared_ptr<Listener> Listen();
    void Unlisten(const std::shared_ptr<Listener>& listener);
    // The next event's JSON, waiting up to waitMs: true with *event empty on timeout; false
    // once the page fell behind (it reconnects and reloads) or the server stops.
    bool NextEvent(Listener& listener, std::string* event, int waitMs);
    void Publish(size_t camera, const std::string& kind, const std::string& json);

    // Wakes every stream to end; requests under way finish.
    void Stop();
    bool Stopping();

private:
    void OnEvent(size_t index, const std::string& kind, const std::string& json);
    void EncodeLoop();

    std::vector<std::unique_ptr<Feed>> feeds;
    std::mutex lock;
    std::condition_variable wake;  // encoder and event streams
    std::atomic<bool> stopping{false};
    int streams = 0;
    std::vector<std::shared_ptr<Listener>> listeners;
    std::thread encoder;
};

}  // namespace orqcam
