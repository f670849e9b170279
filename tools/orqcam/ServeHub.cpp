#include "ServeHub.h"

#include <algorithm>

#include "Output.h"
#include "ServeJpeg.h"
#include "ServeJson.h"

namespace orqcam {

namespace {

constexpr int kJpegQuality = 75;

}  // namespace

Hub::Hub(const std::vector<Camera*>& cameras) {
    for (size_t i = 0; i < cameras.size(); ++i) {
        feeds.push_back(std::make_unique<Feed>());
        feeds.back()->camera = cameras[i];
        cameras[i]->SetEventSink([this, i](Camera&, const std::string& kind, const std::string&,
                                           const std::string& json) { OnEvent(i, kind, json); });
    }
    encoder = std::thread([this] { EncodeLoop(); });
}

Hub::~Hub() {
    Stop();
    encoder.join();
    for (auto& feed : feeds) {
        feed->camera->SetEventSink(nullptr);
        if (feed->viewers > 0) sdk.SetPreviewState(feed->camera->Session(), ORQ_PREVIEW_OFF);
    }
}

void Hub::Stop() {
    {
        std::lock_guard<std::mutex> guard(lock);
        stopping = true;
    }
    wake.notify_all();
    for (auto& feed : feeds) {
        std::lock_guard<std::mutex> guard(feed->lock);
        feed->fresh.notify_all();
    }
}

bool Hub::Stopping() {
    return stopping;
}

bool Hub::OpenStream() {
    std::lock_guard<std::mutex> guard(lock);
    if (stopping || streams >= kMaxStreams) return false;
    ++streams;
    return true;
}

void Hub::CloseStream() {
    std::lock_guard<std::mutex> guard(lock);
    --streams;
}

// Called on camera threads: only notes what happened and wakes the server's own threads.
void Hub::OnEvent(size_t index, const std::string& kind, const std::string& json) {
    Feed& feed = *feeds[index];
    if (kind == "preview") {
        {
            std::lock_guard<std::mutex> guard(feed.lock);
            if (feed.viewers == 0) return;
            feed.pending = true;
        }
        std::lock_guard<std::mutex> guard(lock);
        wake.notify_all();
        return;
    }
    if (kind == "zoom-completed" || kind == "download") return;
    Publish(index, kind, json);
}

void Hub::AddViewer(Feed& feed) {
    bool first = false;
    {
        std::lock_guard<std::mutex> guard(feed.lock);
        first = feed.viewers++ == 0;
    }
    if (first) sdk.SetPreviewState(feed.camera->Session(), ORQ_PREVIEW_ON);
}

void Hub::RemoveViewer(Feed& feed) {
    bool last = false;
    {
        std::lock_guard<std::mutex> guard(feed.lock);
        last = --feed.viewers == 0;
    }
    if (last) sdk.SetPreviewState(feed.camera->Session(), ORQ_PREVIEW_OFF);
}

Jpeg Hub::NextFrame(Feed& feed, uint64_t* sequence, int waitMs) {
    std::unique_lock<std::mutex> guard(feed.lock);
    bool fresh = feed.fresh.wait_for(guard, std::chrono::milliseconds(waitMs), [&] {
        return stopping || (feed.jpeg && feed.sequence != *sequence);
    });
    if (!fresh || stopping) return nullptr;
    *sequence = feed.sequence;
    return feed.jpeg;
}

// One thread encodes for every camera: only the newest frame of each is ever encoded, so a
// camera that outpaces the encoder loses frames instead of queueing them.
void Hub::EncodeLoop() {
    for (;;) {
        {
            std::unique_lock<std::mutex> guard(lock);
            wake.wait_for(guard, std::chrono::milliseconds(500));
            if (stopping) return;
        }
        for (auto& feed : feeds) {
            {
                std::lock_guard<std::mutex> guard(feed->lock);
                if (!feed->pending) continue;
                feed->pending = false;
            }
            void* frame = nullptr;
            int size = 0;
            if (sdk.GetPreviewFrame(feed->camera->Session(), &frame, &size) != ORQ_OK) continue;
            auto jpeg = std::make_shared<std::string>();
            bool encoded =
                BmpToJpeg(static_cast<const uint8_t*>(frame),
                          size > 0 ? static_cast<size_t>(size) : 0, kJpegQuality, jpeg.get());
            sdk.Free(frame);
            if (!encoded) continue;
            std::lock_guard<std::mutex> guard(feed->lock);
            feed->jpeg = std::move(jpeg);
            ++feed->sequence;
            feed->fresh.notify_all();
        }
    }
}

std::shared_ptr<Hub::Listener> Hub::Listen() {
    auto listener = std::make_shared<Listener>();
    std::lock_guard<std::mutex> guard(lock);
    listeners.push_back(listener);
    return listener;
}

void Hub::Unlisten(const std::shared_ptr<Listener>& listener) {
    std::lock_guard<std::mutex> guard(lock);
    listeners.erase(std::remove(listeners.begin(), listeners.end(), listener), listeners.end());
}

bool Hub::NextEvent(Listener& listener, std::string* event, int waitMs) {
    std::unique_lock<std::mutex> guard(lock);
    wake.wait_for(guard, std::chrono::milliseconds(waitMs),
                  [&] { return stopping || listener.overflowed || !listener.queue.empty(); });
    event->clear();
    if (stopping || listener.overflowed) return false;
    if (!listener.queue.empty()) {
        *event = std::move(listener.queue.front());
        listener.queue.pop_front();
    }
    return true;
}

void Hub::Publish(size_t camera, const std::string& kind, const std::string& json) {
    Feed& feed = *feeds[camera];
    if (kind == "shot") {
        // The shot's own record comes as JSON; the thumbnail is the frame before it.
        Shot shot;
        shot.id = JsonInteger(json, "id");
        shot.name = JsonText(json, "name");
        shot.size = static_cast<uint32_t>(JsonInteger(json, "size"));
        std::lock_guard<std::mutex> guard(feed.lock);
        shot.thumb = feed.jpeg;
        feed.deleted.erase(shot.id);
        feed.shots.push_back(std::move(shot));
        if (feed.shots.size() > kShotsKept) feed.shots.pop_front();
    }
    std::string event = JsonObject({{"camera", JsonNumber(static_cast<long long>(camera))},
                                    {"event", JsonString(kind)},
                                    {"data", json}});
    {
        std::lock_guard<std::mutex> guard(lock);
        for (auto& listener : listeners) {
            if (listener->queue.size() >= kMaxQueuedEvents) {
                listener->overflowed = true;
            } else {
                listener->queue.push_back(event);
            }
        }
    }
    wake.notify_all();
}

}  // namespace orqcam
