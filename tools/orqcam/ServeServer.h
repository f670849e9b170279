// The server behind orqcam serve: its routes and what they share.
#pragma once

#include <httplib.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Serve.h"
#include "ServeHub.h"
#include "ServeJson.h"
#include "ServeRig.h"

namespace orqcam {
namespace serve {

constexpr int kFocusSliderMaximum = 1000;
constexpr int kDownloadTimeoutMs = 120000;

inline void Reply(httplib::Response& response, int status, const std::string& json) {
    response.status = status;
    response.set_header("Cache-Control", "no-store");
    response.set_content(json + "\n", "application/json");
}

inline void Error(httplib::Response& response, int status, const std::string& message,
                  OrqResult result = ORQ_ERROR) {
    Reply(response, status,
          JsonObject({{"error", JsonString(message)}, {"result", JsonString(ResultName(result))}}));
}

// Sends the file at `path` as the response's body, read in pieces as the client takes them;
// `done` runs once the transfer has ended. False, with nothing set, when it cannot be read.
bool StreamFile(httplib::Response& response, const std::string& path,
                const std::function<void()>& done = nullptr);

// The status a failed SDK result stands for.
inline int StatusFor(OrqResult result) {
    switch (result) {
        case ORQ_UNKNOWN_PROPERTY:
            return 404;
        case ORQ_PROPERTY_CONSTRAINT:
            return 422;
        case ORQ_ERROR:
            return 409;
        default:
            return 503;  // the camera is gone or its session ended
    }
}
class Server {
public:
    Server(const Options& options, const std::vector<Camera*>& cameras,
           const ServeExtension* extension)
        : options(options), extension(extension), hub(cameras) {}

    Outcome Run();

private:
    using Request = httplib::Request;
    using Response = httplib::Response;

    bool Authorised(const Request& request, Response& response);
    Feed* CameraOf(const Request& request, Response& response);
    bool Body(const Request& request, Response& response, std::map<std::string, JsonValue>& body);
    bool Usable(Feed& feed, Response& response);
    void Routes();

    std::string CameraJson(size_t index);
    std::string SettingJson(Feed& feed, int id);
    bool FindSetting(Feed& feed, const std::string& text, int& id);
    std::vector<FileRecord> Files(Feed& feed);
    bool Waited(Feed& feed, Response& response, const std::function<bool(const Camera::Counts&)>&,
                int timeoutMs);

    void Settings(const Request& request, Response& response);
    void Setting(const Request& request, Response& response);
    void Set(const Request& request, Response& response);
    void ShootOne(const Request& request, Response& response);
    void ShootAll(const Request& request, Response& response);
    void Zoom(const Request& request, Response& response);
    void Focus(const Request& request, Response& response);
    void Video(const Request& request, Response& response);
    void FileList(const Request& request, Response& response);
    void Download(const Request& request, Response& response);
    void Delete(const Request& request, Response& response);
    void Thumb(const Request& request, Response& response);
    void Live(const Request& request, Response& response);
    void Events(const Request& request, Response& response);

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
