#include "Serve.h"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ServeAuth.h"
#include "ServePage.h"
#include "ServePool.h"
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

void Send(httplib::Response& response, const Answer& answer) {
    if (answer.status != 0) Reply(response, answer.status, answer.json);
}

}  // namespace

httplib::Server::Handler Server::OnCamera(CameraHandler handler, unsigned needs) {
    return [this, handler, needs](const Request& request, Response& response) {
        Send(response, Step(request, response, handler, needs));
    };
}

httplib::Server::Handler Server::Answering(PlainHandler handler) {
    return [this, handler](const Request& request, Response& response) {
        Send(response, (this->*handler)(request, response));
    };
}

Answer Server::Step(const Request& request, Response& response, CameraHandler handler,
                    unsigned needs) {
    int index = -1;
    if (!ParseInteger(request.matches[1], index) || index < 0 ||
        static_cast<size_t>(index) >= hub.Count())
        return Fail(404, "no such camera");
    Call call{request, response, hub.At(static_cast<size_t>(index)), {}};
    if ((needs & kBody) && !ParseFlatObject(request.body.empty() ? "{}" : request.body, call.body))
        return Fail(400, "the body is not a flat JSON object");
    if (needs & kAlive) {
        OrqResult failure = call.feed.camera->Failure();
        if (failure != ORQ_OK) return Fail(503, "the camera's session has ended", failure);
    }
    if ((needs & kSetting) && !FindSetting(call.feed, request.matches[2], call.id))
        return Fail(404, "no such setting");
    if ((needs & kFileId) && !ParseInteger(request.matches[2], call.id))
        return Fail(400, "a file id is a number");
    return (this->*handler)(call);
}

std::optional<Answer> Server::Waited(Feed& feed,
                                     const std::function<bool(const Camera::Counts&)>& done,
                                     int timeoutMs) {
    bool timedOut = false;
    OrqResult result = feed.camera->WaitUntil(done, timeoutMs, &timedOut);
    if (timedOut) return Fail(504, "the camera did not answer in time");
    if (result != ORQ_OK) return Fail(503, "the camera's session has ended", result);
    return std::nullopt;
}

std::optional<Answer> Server::Drained(Feed& feed) {
    bool timedOut = false;
    OrqResult result = feed.camera->Drain(options.timeoutMs, &timedOut);
    if (timedOut) return Fail(504, "the camera did not answer in time");
    if (result != ORQ_OK) return Fail(503, "the camera's session has ended", result);
    return std::nullopt;
}

void Server::Routes() {
    http.set_pre_routing_handler([this](const Request& request, Response& response) {
        return Refused(token, request, response) ? httplib::Server::HandlerResponse::Handled
                                                 : httplib::Server::HandlerResponse::Unhandled;
    });
    http.Get("/", [](const Request&, Response& response) {
        response.set_header("Cache-Control", "no-store");
        response.set_content(kServePage, "text/html; charset=utf-8");
    });
    const char* camera = R"(/api/cameras/(\d+))";
    auto under = [camera](const char* rest) { return std::string(camera) + rest; };
    http.Get("/api/cameras", Answering(&Server::Cameras));
    http.Get(camera, OnCamera(&Server::OneCamera, kCamera));
    http.Get(under("/settings"), OnCamera(&Server::Settings, kCamera));
    http.Get(under("/settings/([^/]+)"), OnCamera(&Server::Setting, kSetting));
    http.Post(under("/settings/([^/]+)"), OnCamera(&Server::Set, kBody | kAlive | kSetting));
    http.Post(under("/shoot"), OnCamera(&Server::ShootOne, kAlive));
    http.Post("/api/shoot", Answering(&Server::ShootAll));
    http.Post(under("/zoom"), OnCamera(&Server::Zoom, kBody | kAlive));
    http.Post(under("/focus"), OnCamera(&Server::Focus, kBody | kAlive));
    http.Post(under("/video"), OnCamera(&Server::Video, kBody | kAlive));
    http.Get(under("/files"), OnCamera(&Server::FileList, kCamera));
    http.Get(under("/files/([^/]+)"), OnCamera(&Server::Download, kAlive | kFileId));
    http.Post(under("/files/([^/]+)/delete"), OnCamera(&Server::Delete, kAlive | kFileId));
    http.Get(under("/shots/([^/]+)/thumb"), OnCamera(&Server::Thumb, kFileId));
    http.Get(under("/live"), OnCamera(&Server::Live, kCamera));
    http.Get("/api/events", Answering(&Server::Events));
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
    token = ChooseToken(options.token, host, extension != nullptr);
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
