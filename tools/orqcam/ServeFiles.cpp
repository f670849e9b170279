// Files, thumbnails and the two streams of orqcam serve.
#include <algorithm>
#include <cstdio>
#include <fstream>

#include "ServeServer.h"
#include "Verbs.h"

namespace orqcam {
namespace serve {

namespace {

const char* kBoundary = "orqframe";

}  // namespace

bool StreamFile(httplib::Response& response, const std::string& path,
                const std::function<void()>& done) {
    auto stream = std::make_shared<std::ifstream>(path, std::ios::binary);
    stream->seekg(0, std::ios::end);
    std::streamoff size = stream->tellg();
    stream->seekg(0);
    if (!*stream || size < 0) return false;
    response.set_content_provider(
        static_cast<size_t>(size), "application/octet-stream",
        [stream](size_t offset, size_t length, httplib::DataSink& sink) {
            char buffer[65536];
            stream->seekg(static_cast<std::streamoff>(offset));
            stream->read(buffer, static_cast<std::streamsize>(std::min(length, sizeof buffer)));
            std::streamsize got = stream->gcount();
            return got > 0 && sink.write(buffer, static_cast<size_t>(got));
        },
        [stream, done](bool) {
            stream->close();
            if (done) done();
        });
    return true;
}

std::vector<FileRecord> Server::Files(Feed& feed) {
    OrqFileInfo* list = nullptr;
    int count = 0;
    std::vector<FileRecord> files;
    if (sdk.GetFileList(feed.camera->Session(), &list, &count) == ORQ_OK && list) {
        for (int i = 0; i < count; ++i)
            files.push_back(FileRecord{list[i].id, Utf8(list[i].name), list[i].size});
    }
    sdk.Free(list);
    std::lock_guard<std::mutex> guard(feed.lock);
    files.erase(std::remove_if(files.begin(), files.end(),
                               [&](const FileRecord& f) { return feed.deleted.count(f.id) > 0; }),
                files.end());
    // Pictures held in host memory are not listed by the SDK; the server saw them arrive.
    for (const Shot& shot : feed.shots) {
        if (shot.id < 0 && !feed.deleted.count(shot.id))
            files.push_back(FileRecord{shot.id, shot.name, shot.size});
    }
    return files;
}

Answer Server::FileList(Call& call) {
    std::vector<std::string> files;
    for (const FileRecord& file : Files(call.feed))
        files.push_back(FileJson(file.id, file.name, file.size));
    return Ok(JsonArray(files));
}

// Only a file the camera lists, by its id: an id it does not know would end its session, and
// nothing the page sends ever names a place on this machine.
Answer Server::Download(Call& call) {
    Feed& feed = call.feed;
    const int id = call.id;
    std::vector<FileRecord> files = Files(feed);
    auto file =
        std::find_if(files.begin(), files.end(), [id](const FileRecord& f) { return f.id == id; });
    if (file == files.end()) return Fail(404, "no such file on this camera");
    std::string path = temporary + "/" + std::to_string(++downloadCounter) + ".part";
    std::u16string wide(path.begin(), path.end());
    {
        std::lock_guard<std::mutex> work(feed.work);
        feed.camera->TakeDownloads();
        int before = feed.camera->Seen().downloads;
        OrqResult result = sdk.DownloadFileTo(
            feed.camera->Session(), id, reinterpret_cast<OrqChar*>(wide.data()), ORQ_KEEP_FILE);
        if (result != ORQ_OK) return Fail(StatusFor(result), "download refused", result);
        if (auto failed = Waited(
                feed, [before](const Camera::Counts& c) { return c.downloads > before; },
                kDownloadTimeoutMs))
            return *failed;
    }
    std::string name = file->name;
    name.erase(std::remove_if(name.begin(), name.end(),
                              [](char c) { return c == '"' || c == '\\' || c < 0x20; }),
               name.end());
    if (!StreamFile(call.response, path, [path] { std::remove(path.c_str()); })) {
        std::remove(path.c_str());
        return Fail(500, "the downloaded file cannot be read");
    }
    call.response.set_header("Content-Disposition", "attachment; filename=\"" + name + "\"");
    return Sent();
}

Answer Server::Delete(Call& call) {
    Feed& feed = call.feed;
    const int id = call.id;
    std::lock_guard<std::mutex> work(feed.work);
    std::vector<FileRecord> files = Files(feed);
    if (std::none_of(files.begin(), files.end(), [id](const FileRecord& f) { return f.id == id; }))
        return Fail(404, "no such file on this camera");
    OrqResult result = sdk.DeleteFile(feed.camera->Session(), id);
    if (result != ORQ_OK) return Fail(StatusFor(result), "delete refused", result);
    {
        std::lock_guard<std::mutex> guard(feed.lock);
        feed.deleted.insert(id);
    }
    hub.Publish(static_cast<size_t>(feed.camera->Index()), "deleted",
                JsonObject({{"id", JsonNumber(id)}}));
    return Ok(JsonObject({{"deleted", JsonNumber(id)}}));
}

Answer Server::Thumb(Call& call) {
    Jpeg thumb;
    {
        std::lock_guard<std::mutex> guard(call.feed.lock);
        for (const Shot& shot : call.feed.shots)
            if (shot.id == call.id) thumb = shot.thumb;
    }
    if (!thumb) return Fail(404, "no live view was running at that shot");
    call.response.set_header("Cache-Control", "max-age=3600");
    call.response.set_content(*thumb, "image/jpeg");
    return Sent();
}

// MJPEG: each part replaces the last. Only the newest frame is sent: a slow viewer skips
// frames instead of queueing them; a frame is repeated every second so a gone viewer is noticed.
Answer Server::Live(Call& call) {
    Feed* feed = &call.feed;
    if (!hub.OpenStream()) return Fail(503, "too many streams");
    hub.AddViewer(*feed);
    call.response.set_header("Cache-Control", "no-store");
    call.response.set_chunked_content_provider(
        std::string("multipart/x-mixed-replace; boundary=") + kBoundary,
        [this, feed](size_t, httplib::DataSink& sink) {
            uint64_t sequence = 0;
            Jpeg last;
            while (!hub.Stopping()) {
                Jpeg frame = hub.NextFrame(*feed, &sequence, 1000);
                if (hub.Stopping()) break;
                if (frame) last = frame;
                if (!last) continue;
                std::string head = std::string("--") + kBoundary +
                                   "\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                                   std::to_string(last->size()) + "\r\n\r\n";
                if (!sink.write(head.data(), head.size()) ||
                    !sink.write(last->data(), last->size()) || !sink.write("\r\n", 2))
                    return false;
            }
            sink.done();
            return true;
        },
        [this, feed](bool) {
            hub.RemoveViewer(*feed);
            hub.CloseStream();
        });
    return Sent();
}

Answer Server::Events(const Request&, Response& response) {
    if (!hub.OpenStream()) return Fail(503, "too many streams");
    auto listener = hub.Listen();
    response.set_header("Cache-Control", "no-store");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, listener](size_t, httplib::DataSink& sink) {
            std::string event;
            if (!sink.write(": orqcam\n\n", 10)) return false;
            while (hub.NextEvent(*listener, &event, 10000)) {
                // A comment when idle: a page that went away is noticed by the failed write.
                std::string text = event.empty() ? ": idle\n\n" : "data: " + event + "\n\n";
                if (!sink.write(text.data(), text.size())) return false;
            }
            sink.done();
            return true;
        },
        [this, listener](bool) {
            hub.Unlisten(listener);
            hub.CloseStream();
        });
    return Sent();
}

}  // namespace serve
}  // namespace orqcam
