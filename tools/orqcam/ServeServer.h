// The server behind orqcam serve: its routes and what they share.
#pragma once

#include <httplib.h>

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Serve.h"
#include "ServeHub.h"
#include "ServeJson.h"
#include "ServeReply.h"
#include "ServeRig.h"

namespace orqcam {
namespace serve {

constexpr int kFocusSliderMaximum = 1000;
constexpr int kDownloadTimeoutMs = 120000;

// Sends the file at `path` as the response's body, read in pieces as the client takes them;
// `done` runs once the transfer has ended. False, with nothing set, when it cannot be read.
bool StreamFile(httplib::Response& response, const std::string& path,
                const std::function<void()>& done = nullptr);

// A picture or movie as the API lists it.
inline std::string FileJson(int id, const std::string& name, long long size) {
    return JsonObject(
        {{"id", JsonNumber(id)}, {"name", JsonString(name)}, {"size", JsonNumber(size)}});
}

// What a route answers: JSON with its status, or nothing more (status 0) when the route has set
// the response itself: a file, a picture, a stream.
struct Answer {
    int status = 0;
    std::string json;
};

inline Answer Ok(const std::string& json) {
    return {200, json};
}

inline Answer Fail(int status, const std::string& message, OrqResult result = ORQ_ERROR) {
    return {status, ErrorJson(message, result)};
}

inline Answer Sent() {
    return {};
}

// A request to one camera's route, once the camera is found and what the route needs holds.
struct Call {
    const httplib::Request& request;
    httplib::Response& response;
    Feed& feed;
    std::map<std::string, JsonValue> body;  // where the route reads its body
    int id = 0;                             // the setting's or the file's, where the path names one
};

class Server {
public:
    Server(const Options& options, const std::vector<Camera*>& cameras,
           const ServeExtension* extension)
        : options(options), extension(extension), hub(cameras) {}

    Outcome Run();

private:
    using Request = httplib::Request;
    using Response = httplib::Response;
    using CameraHandler = Answer (Server::*)(Call&);
    using PlainHandler = Answer (Server::*)(const Request&, Response&);

    // What a camera's route needs before it runs, besides the camera.
    enum Needs : unsigned {
        kCamera = 0,
        kBody = 1,     // a flat JSON object (400)
        kAlive = 2,    // the camera's session not ended (503)
        kSetting = 4,  // a setting of the camera, by its name or id (404)
        kFileId = 8,   // a file's id, a number (400)
    };

    // The one step of every camera's route: find the camera (404), check what the route needs
    // in the order of Needs, run it, answer.
    httplib::Server::Handler OnCamera(CameraHandler handler, unsigned needs);
    httplib::Server::Handler Answering(PlainHandler handler);
    Answer Step(const Request& request, Response& response, CameraHandler handler, unsigned needs);
    void Routes();

    std::string CameraJson(size_t index);
    std::string SettingJson(Feed& feed, int id);
    std::vector<int> SettingIds(Feed& feed);
    bool FindSetting(Feed& feed, const std::string& text, int& id);
    std::vector<FileRecord> Files(Feed& feed);
    // Waits for a camera event, or for the camera to have taken what it was sent: the failure
    // to answer with when it did not come.
    std::optional<Answer> Waited(Feed& feed, const std::function<bool(const Camera::Counts&)>&,
                                 int timeoutMs);
    std::optional<Answer> Drained(Feed& feed);

    Answer Cameras(const Request& request, Response& response);
    Answer ShootAll(const Request& request, Response& response);
    Answer Events(const Request& request, Response& response);

    Answer OneCamera(Call& call);
    Answer Settings(Call& call);
    Answer Setting(Call& call);
    Answer Set(Call& call);
    Answer ShootOne(Call& call);
    Answer Zoom(Call& call);
    Answer Focus(Call& call);
    Answer Video(Call& call);
    Answer FileList(Call& call);
    Answer Download(Call& call);
    Answer Delete(Call& call);
    Answer Thumb(Call& call);
    Answer Live(Call& call);

    const Options& options;
    const ServeExtension* extension;
    std::unique_ptr<RigView> rig;  // with --broker: outlives the server's handlers
    Hub hub;
    httplib::Server http;
    std::string token;
    std::string temporary;  // downloads pass through here on their way to the page
    std::atomic<int> downloadCounter{0};
};

}  // namespace serve
}  // namespace orqcam
