#include "Serve.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <random>

#include "ServePage.h"
#include "ServeServer.h"
#include "Verbs.h"

#ifndef _WIN32
#include <unistd.h>
#endif

namespace orqcam {
namespace serve {

namespace {

constexpr int kPort = 8080;
constexpr size_t kMaxBody = 4096;

// Read by the thread that stops the server; a lock-free atomic may be written from a handler.
std::atomic<int> signalled{0};
static_assert(std::atomic<int>::is_always_lock_free, "signal handlers need a lock-free flag");

extern "C" void OnSignal(int) {
    signalled = 1;
}

// Connections beyond the workers wait in the kernel's backlog, not in an unbounded queue.
class BoundedPool : public httplib::TaskQueue {
public:
    explicit BoundedPool(size_t workers) {
        for (size_t i = 0; i < workers; ++i) threads.emplace_back([this] { Work(); });
    }
    void enqueue(std::function<void()> job) override {
        std::unique_lock<std::mutex> guard(lock);
        room.wait(guard, [&] { return jobs.size() < kQueued; });
        jobs.push_back(std::move(job));
        ready.notify_one();
    }
    void shutdown() override {
        {
            std::lock_guard<std::mutex> guard(lock);
            done = true;
        }
        ready.notify_all();
        for (auto& thread : threads) thread.join();
    }

private:
    static constexpr size_t kQueued = 16;
    void Work() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock<std::mutex> guard(lock);
                ready.wait(guard, [&] { return done || !jobs.empty(); });
                if (jobs.empty()) return;
                job = std::move(jobs.front());
                jobs.pop_front();
            }
            room.notify_one();
            job();
        }
    }
    std::mutex lock;
    std::condition_variable ready, room;
    std::deque<std::function<void()>> jobs;
    std::vector<std::thread> threads;
    bool done = false;
};

std::string RandomToken() {
    std::random_device device;
    std::string token;
    const char* digits = "0123456789abcdef";
    for (int i = 0; i < 32; ++i) token += digits[device() % 16];
    return token;
}

bool SameText(const std::string& a, const std::string& b) {
    // Compares every byte, so that the time taken does not tell how much of a guess was right.
    unsigned char differ = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size(); ++i) differ |= a[i] ^ b[i % (b.empty() ? 1 : b.size())];
    return differ == 0 && !b.empty();
}

bool IsLoopback(const std::string& host) {
    return host == "127.0.0.1" || host == "::1" || host == "localhost";
}
// One release for every camera where the SDK has it; otherwise orqcam's own way.
std::vector<Fired> FireTogether(const std::vector<Camera*>& cameras) {
    if (!sdk.ShootSynchronized || cameras.empty()) return fire(cameras);
    std::vector<OrqSessionHandle> sessions;
    for (Camera* camera : cameras) sessions.push_back(camera->Session());
    std::vector<OrqResult> results(cameras.size(), ORQ_ERROR);
    sdk.ShootSynchronized(sessions.data(), static_cast<int>(sessions.size()), results.data());
    std::vector<Fired> fired(cameras.size());
    for (size_t i = 0; i < cameras.size(); ++i) fired[i].result = results[i];
    return fired;
}

}  // namespace

bool Server::Authorised(const Request& request, Response& response) {
    if (token.empty()) {
        // Without a token only this machine can reach the server; a page of another site that
        // renamed itself to 127.0.0.1 still names its own host.
        std::string host = request.get_header_value("Host");
        host = host.substr(0, host.rfind(':'));
        if (!IsLoopback(host) && host != "[::1]") {
            Error(response, 403, "this server answers only to its loopback address");
            return false;
        }
        return true;
    }
    std::string given = request.get_param_value("token");
    std::string header = request.get_header_value("Authorization");
    if (header.rfind("Bearer ", 0) == 0) given = header.substr(7);
    if (!SameText(given, token)) {
        Error(response, 401, "a valid token is needed (?token= or Authorization: Bearer)");
        return false;
    }
    return true;
}

Feed* Server::CameraOf(const Request& request, Response& response) {
    int index = -1;
    if (!ParseInteger(request.matches[1], index) || index < 0 ||
        static_cast<size_t>(index) >= hub.Count()) {
        Error(response, 404, "no such camera");
        return nullptr;
    }
    return &hub.At(static_cast<size_t>(index));
}

bool Server::Body(const Request& request, Response& response,
                  std::map<std::string, JsonValue>& body) {
    if (!ParseFlatObject(request.body.empty() ? "{}" : request.body, body)) {
        Error(response, 400, "the body is not a flat JSON object");
        return false;
    }
    return true;
}

bool Server::Usable(Feed& feed, Response& response) {
    OrqResult failure = feed.camera->Failure();
    if (failure == ORQ_OK) return true;
    Error(response, 503, "the camera's session has ended", failure);
    return false;
}

// Waits for a camera event; says why not in the response.
bool Server::Waited(Feed& feed, Response& response,
                    const std::function<bool(const Camera::Counts&)>& done, int timeoutMs) {
    bool timedOut = false;
    OrqResult result = feed.camera->WaitUntil(done, timeoutMs, &timedOut);
    if (timedOut) {
        Error(response, 504, "the camera did not answer in time");
        return false;
    }
    if (result != ORQ_OK) {
        Error(response, 503, "the camera's session has ended", result);
        return false;
    }
    return true;
}

std::string Server::CameraJson(size_t index) {
    Feed& feed = hub.At(index);
    OrqSessionHandle session = feed.camera->Session();
    const OrqCameraInfo& info = feed.camera->Info();
    int zoom = 0, maxZoom = 0, focus = 0;
    sdk.GetZoom(session, &zoom);
    sdk.GetMaximumZoom(session, &maxZoom);
    sdk.GetFocus(session, &focus);
    std::vector<std::string> shots;
    {
        std::lock_guard<std::mutex> guard(feed.lock);
        for (const Shot& shot : feed.shots) {
            if (feed.deleted.count(shot.id)) continue;
            shots.push_back(JsonObject({{"id", JsonNumber(shot.id)},
                                        {"name", JsonString(shot.name)},
                                        {"size", JsonNumber(shot.size)}}));
        }
    }
    OrqResult failure = feed.camera->Failure();
    return JsonObject({{"index", JsonNumber(static_cast<long long>(index))},
                       {"name", JsonString(Utf8(info.name))},
                       {"serial", JsonString(Utf8(info.serial))},
                       {"zoom", JsonNumber(zoom)},
                       {"maxZoom", JsonNumber(maxZoom)},
                       {"focus", JsonNumber(focus)},
                       {"maxFocus", JsonNumber(kFocusSliderMaximum)},
                       {"video", JsonBool(sdk.IsVideoSupported(session) == 1)},
                       {"failure", failure == ORQ_OK ? "null" : JsonString(ResultName(failure))},
                       {"shots", JsonArray(shots)}});
}

std::string Server::SettingJson(Feed& feed, int id) {
    OrqSessionHandle session = feed.camera->Session();
    int value = 0;
    if (sdk.GetPropertyData(session, id, &value) != ORQ_OK) return "";
    OrqPropertyDesc* desc = nullptr;
    std::vector<std::string> values;
    bool readOnly = false;
    if (sdk.GetPropertyDesc(session, id, &desc) == ORQ_OK && desc) {
        readOnly = desc->readOnly != 0;
        for (int i = 0; i < desc->count; ++i) {
            values.push_back(JsonObject({{"value", JsonNumber(desc->values[i])},
                                         {"name", JsonString(ValueName(id, desc->values[i]))}}));
        }
    }
    sdk.Free(desc);
    return JsonObject({{"id", JsonNumber(id)},
                       {"name", JsonString(PropertyName(id))},
                       {"value", JsonNumber(value)},
                       {"valueName", JsonString(ValueName(id, value))},
                       {"readOnly", JsonBool(readOnly)},
                       {"values", JsonArray(values)}});
}

bool Server::FindSetting(Feed& feed, const std::string& text, int& id) {
    int* list = nullptr;
    int count = 0;
    if (sdk.GetPropertyList(feed.camera->Session(), &list, &count) != ORQ_OK) return false;
    std::vector<int> ids(list, list + (list ? count : 0));
    sdk.Free(list);
    for (int candidate : ids) {
        if (std::to_string(candidate) == text || Lower(PropertyName(candidate)) == Lower(text)) {
            id = candidate;
            return true;
        }
    }
    return false;
}

void Server::Settings(const Request& request, Response& response) {
    Feed* feed = CameraOf(request, response);
    if (!feed) return;
    int* list = nullptr;
    int count = 0;
    sdk.GetPropertyList(feed->camera->Session(), &list, &count);
    std::vector<int> ids(list, list + (list ? count : 0));
    sdk.Free(list);
    std::vector<std::string> settings;
    for (int id : ids) {
        std::string one = SettingJson(*feed, id);
        if (!one.empty()) settings.push_back(one);
    }
    Reply(response, 200, JsonArray(settings));
}

void Server::Setting(const Request& request, Response& response) {
    Feed* feed = CameraOf(request, response);
    int id = 0;
    if (!feed) return;
    if (!FindSetting(*feed, request.matches[2], id)) return Error(response, 404, "no such setting");
    Reply(response, 200, SettingJson(*feed, id));
}

void Server::Set(const Request& request, Response& response) {
    Feed* feed = CameraOf(request, response);
    std::map<std::string, JsonValue> body;
    if (!feed || !Body(request, response, body) || !Usable(*feed, response)) return;
    int id = 0;
    if (!FindSetting(*feed, request.matches[2], id)) return Error(response, 404, "no such setting");
    auto given = body.find("value");
    if (given == body.end()) return Error(response, 400, "the body needs \"value\"");
    // A value by its name as the page shows it, or by its number.
    int value = 0;
    bool found = !given->second.isString && ParseInteger(given->second.text, value);
    OrqPropertyDesc* desc = nullptr;
    // A name first: some names are numbers ("0" of the exposure compensation).
    if (!found && sdk.GetPropertyDesc(feed->camera->Session(), id, &desc) == ORQ_OK && desc) {
        for (int i = 0; i < desc->count && !found; ++i) {
            if (Lower(ValueName(id, desc->values[i])) == Lower(given->second.text)) {
                value = desc->values[i];
                found = true;
            }
        }
    }
    sdk.Free(desc);
    if (!found) found = ParseInteger(given->second.text, value);
    if (!found) return Error(response, 422, "not a value of " + PropertyName(id));
    std::lock_guard<std::mutex> work(feed->work);
    OrqResult result = sdk.SetPropertyData(feed->camera->Session(), id, value);
    if (result != ORQ_OK) {
        return Error(response, StatusFor(result),
                     result == ORQ_ERROR ? PropertyName(id) + " is read-only"
                                         : "refused: " + std::string(ResultName(result)),
                     result);
    }
    // Answered once the camera has it; other pages hear of it, as the SDK tells only of changes
    // made elsewhere.
    bool timedOut = false;
    result = feed->camera->Drain(options.timeoutMs, &timedOut);
    if (timedOut) return Error(response, 504, "the camera did not answer in time");
    if (result != ORQ_OK) return Error(response, 503, "the camera's session has ended", result);
    std::string setting = SettingJson(*feed, id);
    hub.Publish(static_cast<size_t>(feed->camera->Index()), "property",
                JsonObject({{"id", JsonNumber(id)},
                            {"name", JsonString(PropertyName(id))},
                            {"value", JsonNumber(value)},
                            {"valueName", JsonString(ValueName(id, value))}}));
    Reply(response, 200, setting);
}

void Server::ShootOne(const Request& request, Response& response) {
    Feed* feed = CameraOf(request, response);
    if (!feed || !Usable(*feed, response)) return;
    std::lock_guard<std::mutex> work(feed->work);
    int before = feed->camera->Seen().shots;
    OrqResult result = sdk.Shoot(feed->camera->Session());
    if (result != ORQ_OK) return Error(response, StatusFor(result), "shoot refused", result);
    if (!Waited(
            *feed, response, [before](const Camera::Counts& c) { return c.shots > before; },
            options.timeoutMs))
        return;
    std::vector<FileRecord> shots = feed->camera->TakeShots();
    if (shots.empty()) return Error(response, 502, "the camera reported no picture");
    const FileRecord& shot = shots.back();
    Reply(response, 200,
          JsonObject({{"id", JsonNumber(shot.id)},
                      {"name", JsonString(shot.name)},
                      {"size", JsonNumber(shot.size)}}));
}

// Every camera at once, released together where the SDK can.
void Server::ShootAll(const Request&, Response& response) {
    std::vector<std::unique_lock<std::mutex>> locks;
    std::vector<Camera*> cameras;
    std::vector<int> before;
    for (size_t i = 0; i < hub.Count(); ++i) {
        Feed& feed = hub.At(i);
        if (feed.camera->Failure() != ORQ_OK) continue;
        locks.emplace_back(feed.work);
        cameras.push_back(feed.camera);
        before.push_back(feed.camera->Seen().shots);
    }
    std::vector<Fired> fired = FireTogether(cameras);
    std::vector<std::string> shots;
    for (size_t i = 0; i < cameras.size(); ++i) {
        Camera& camera = *cameras[i];
        std::vector<std::pair<std::string, std::string>> one = {
            {"camera", JsonNumber(camera.Index())}};
        OrqResult result = i < fired.size() ? fired[i].result : ORQ_ERROR;
        bool timedOut = false;
        int seen = before[i];
        if (result == ORQ_OK) {
            result = camera.WaitUntil([seen](const Camera::Counts& c) { return c.shots > seen; },
                                      options.timeoutMs, &timedOut);
        }
        std::vector<FileRecord> taken = camera.TakeShots();
        bool ok = result == ORQ_OK && !timedOut && !taken.empty();
        one.push_back({"ok", JsonBool(ok)});
        if (ok) {
            one.push_back({"id", JsonNumber(taken.back().id)});
            one.push_back({"name", JsonString(taken.back().name)});
            one.push_back({"size", JsonNumber(taken.back().size)});
        } else {
            one.push_back({"result", JsonString(timedOut ? "timeout" : ResultName(result))});
        }
        shots.push_back(JsonObject(one));
    }
    Reply(response, 200, JsonObject({{"shots", JsonArray(shots)}}));
}

void Server::Zoom(const Request& request, Response& response) {
    Feed* feed = CameraOf(request, response);
    std::map<std::string, JsonValue> body;
    if (!feed || !Body(request, response, body) || !Usable(*feed, response)) return;
    int zoom = 0;
    if (!ParseInteger(body["zoom"].text, zoom))
        return Error(response, 400, "the body needs \"zoom\"");
    std::lock_guard<std::mutex> work(feed->work);
    int before = feed->camera->Seen().zoomCompleted;
    OrqResult result = sdk.SetZoom(feed->camera->Session(), zoom);
    if (result != ORQ_OK) return Error(response, StatusFor(result), "zoom refused", result);
    if (!Waited(
            *feed, response, [before](const Camera::Counts& c) { return c.zoomCompleted > before; },
            options.timeoutMs))
        return;
    sdk.GetZoom(feed->camera->Session(), &zoom);
    Reply(response, 200, JsonObject({{"zoom", JsonNumber(zoom)}}));
}

void Server::Focus(const Request& request, Response& response) {
    Feed* feed = CameraOf(request, response);
    std::map<std::string, JsonValue> body;
    if (!feed || !Body(request, response, body) || !Usable(*feed, response)) return;
    int focus = 0;
    if (!ParseInteger(body["focus"].text, focus))
        return Error(response, 400, "the body needs \"focus\"");
    std::lock_guard<std::mutex> work(feed->work);
    OrqResult result = sdk.SetFocus(feed->camera->Session(), focus);
    if (result != ORQ_OK) return Error(response, StatusFor(result), "focus refused", result);
    bool timedOut = false;
    result = feed->camera->Drain(options.timeoutMs, &timedOut);
    if (timedOut) return Error(response, 504, "the camera did not answer in time");
    if (result != ORQ_OK) return Error(response, 503, "the camera's session has ended", result);
    sdk.GetFocus(feed->camera->Session(), &focus);
    Reply(response, 200, JsonObject({{"focus", JsonNumber(focus)}}));
}

void Server::Video(const Request& request, Response& response) {
    Feed* feed = CameraOf(request, response);
    std::map<std::string, JsonValue> body;
    if (!feed || !Body(request, response, body) || !Usable(*feed, response)) return;
    const std::string& action = body["action"].text;
    if (action != "start" && action != "stop")
        return Error(response, 400, "\"action\" is start or stop");
    if (sdk.IsVideoSupported(feed->camera->Session()) != 1)
        return Error(response, 409, "this model records no movies");
    std::lock_guard<std::mutex> work(feed->work);
    if (action == "start") {
        OrqResult result = sdk.StartVideo(feed->camera->Session());
        if (result != ORQ_OK) return Error(response, 409, "recording refused", result);
        hub.Publish(static_cast<size_t>(feed->camera->Index()), "video", "{\"recording\":true}");
        return Reply(response, 200, "{\"recording\":true}");
    }
    OrqFileInfo file{};
    OrqResult result = sdk.StopVideo(feed->camera->Session(), &file);
    if (result != ORQ_OK) return Error(response, 409, "stop refused", result);
    std::string json = JsonObject({{"recording", JsonBool(false)},
                                   {"id", JsonNumber(file.id)},
                                   {"name", JsonString(Utf8(file.name))},
                                   {"size", JsonNumber(file.size)}});
    hub.Publish(static_cast<size_t>(feed->camera->Index()), "video", json);
    Reply(response, 200, json);
}

void Server::Routes() {
    auto bind = [this](void (Server::*handler)(const Request&, Response&)) {
        return [this, handler](const Request& request, Response& response) {
            (this->*handler)(request, response);
        };
    };
    http.set_pre_routing_handler([this](const Request& request, Response& response) {
        if (!Authorised(request, response)) return httplib::Server::HandlerResponse::Handled;
        // State changes come as JSON, which a page of another site cannot send without asking.
        if (request.method == "POST" &&
            request.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
            Error(response, 415, "POST bodies are application/json");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    http.Get("/", [](const Request&, Response& response) {
        response.set_header("Cache-Control", "no-store");
        response.set_content(kServePage, "text/html; charset=utf-8");
    });
    http.Get("/api/cameras", [this](const Request&, Response& response) {
        std::vector<std::string> cameras;
        for (size_t i = 0; i < hub.Count(); ++i) cameras.push_back(CameraJson(i));
        Reply(response, 200, JsonArray(cameras));
    });
    http.Get(R"(/api/cameras/(\d+))", [this](const Request& request, Response& response) {
        if (Feed* feed = CameraOf(request, response))
            Reply(response, 200, CameraJson(static_cast<size_t>(feed->camera->Index())));
    });
    http.Get(R"(/api/cameras/(\d+)/settings)", bind(&Server::Settings));
    http.Get(R"(/api/cameras/(\d+)/settings/([^/]+))", bind(&Server::Setting));
    http.Post(R"(/api/cameras/(\d+)/settings/([^/]+))", bind(&Server::Set));
    http.Post(R"(/api/cameras/(\d+)/shoot)", bind(&Server::ShootOne));
    http.Post("/api/shoot", bind(&Server::ShootAll));
    http.Post(R"(/api/cameras/(\d+)/zoom)", bind(&Server::Zoom));
    http.Post(R"(/api/cameras/(\d+)/focus)", bind(&Server::Focus));
    http.Post(R"(/api/cameras/(\d+)/video)", bind(&Server::Video));
    http.Get(R"(/api/cameras/(\d+)/files)", bind(&Server::FileList));
    http.Get(R"(/api/cameras/(\d+)/files/([^/]+))", bind(&Server::Download));
    http.Post(R"(/api/cameras/(\d+)/files/([^/]+)/delete)", bind(&Server::Delete));
    http.Get(R"(/api/cameras/(\d+)/shots/([^/]+)/thumb)", bind(&Server::Thumb));
    http.Get(R"(/api/cameras/(\d+)/live)", bind(&Server::Live));
    http.Get("/api/events", bind(&Server::Events));
    if (extension && extension->routes) extension->routes(http);
    if (rig) rig->Routes(http);
    http.set_error_handler([](const Request&, Response& response) {
        if (response.body.empty())
            Error(response, response.status,
                  response.status == 404 ? "no such thing here" : "bad request");
    });
}

Outcome Server::Run() {
    std::string host = "127.0.0.1";
    int port = kPort;
    if (!options.listen.empty()) {
        size_t colon = options.listen.rfind(':');
        if (colon == std::string::npos || !ParseInteger(options.listen.substr(colon + 1), port) ||
            port < 0 || port > 65535)
            return Failure(kExitUsage, "--listen takes ADDRESS:PORT, not '" + options.listen + "'");
        host = options.listen.substr(0, colon);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']')
            host = host.substr(1, host.size() - 2);
    }
    token = options.token;
    if (token.empty() && extension) token = RandomToken();
    if (token.empty() && !IsLoopback(host)) {
        token = RandomToken();
        Say("listening beyond this machine: every request needs the token %s\n", token.c_str());
    }
    if (!extension && !options.broker.empty()) {
#ifdef ORQCAM_RIG
        Outcome failed;
        rig = FollowRig(options, failed);
        if (!rig) return failed;
#else
        return Failure(kExitUsage, "this orqcam is built without rigs (needs libmosquitto)");
#endif
    }
    const char* base = std::getenv("TMPDIR");
    std::string folder = std::string(base && *base ? base : "/tmp") + "/orqcam-serve-XXXXXX";
    if (!mkdtemp(folder.data()))
        return Failure(kExitSdk, "cannot make a temporary folder for downloads in " + folder);
    temporary = folder;

    Routes();
    http.new_task_queue = [] { return new BoundedPool(Hub::kMaxStreams + 8); };
    http.set_payload_max_length(kMaxBody);
    http.set_keep_alive_max_count(100);
    http.set_read_timeout(10);
    http.set_write_timeout(10);
    int bound =
        port == 0 ? http.bind_to_any_port(host) : (http.bind_to_port(host, port) ? port : -1);
    if (bound < 0) {
        rmdir(temporary.c_str());
        return Failure(kExitUsage, "cannot listen on " + host + ":" + std::to_string(port));
    }
    signalled = 0;
    auto previousInt = std::signal(SIGINT, OnSignal);
    auto previousTerm = std::signal(SIGTERM, OnSignal);
    std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    // Scripts read this line for the port.
    std::fprintf(io.out, "serving %zu camera%s on http://%s:%d/%s\n", hub.Count(),
                 hub.Count() == 1 ? "" : "s", shown.c_str(), bound,
                 token.empty() ? "" : ("?token=" + token).c_str());
    std::fflush(io.out);

    if (extension && extension->listening) extension->listening(host, bound, token);

    std::atomic<bool> ended{false};
    std::thread watcher([&] {
        while (!signalled && !ended && !(extension && extension->stop && *extension->stop))
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        // Streams end; requests under way, downloads among them, run to their end.
        hub.Stop();
        http.stop();
    });
    bool listened = http.listen_after_bind();
    ended = true;
    watcher.join();
    std::signal(SIGINT, previousInt);
    std::signal(SIGTERM, previousTerm);
    rmdir(temporary.c_str());
    Say("stopped\n");
    Outcome outcome;
    if (!listened && !signalled) outcome = Failure(kExitSdk, "the server stopped");
    outcome.json = JsonObject({{"port", JsonNumber(bound)}});
    return outcome;
}

}  // namespace serve

Outcome Serve(const Options& options, const std::vector<Camera*>& cameras,
              const ServeExtension* extension) {
#ifndef _WIN32
    std::signal(SIGPIPE, SIG_IGN);
#endif
    serve::Server server(options, cameras, extension);
    return server.Run();
}

}  // namespace orqcam
