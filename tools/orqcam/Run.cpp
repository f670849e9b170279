#include "Run.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <thread>
#include <tuple>

#include "Verbs.h"
#ifdef ORQCAM_SERVE
#include "Serve.h"
#endif
#ifdef ORQCAM_RIG
#include "Rig.h"
#endif

namespace orqcam {

namespace {

const char* kVersion = "1.1.0";

const char* kPermissionHint =
    "if a camera is attached, this user may not be allowed to open it: the udev rule installed "
    "with the SDK (/usr/lib/udev/rules.d/70-orqsdk.rules) allows it; unplug and replug the "
    "camera after installing it";

std::string CameraJson(int index, const OrqCameraInfo& info) {
    return JsonObject({{"index", JsonNumber(index)},
                       {"id", JsonNumber(info.id)},
                       {"name", JsonString(Utf8(info.name))},
                       {"serial", JsonString(Utf8(info.serial))},
                       {"module", JsonString(Utf8(info.version))},
                       {"path", JsonString(Utf8(info.path))}});
}

// Scripts address cameras by number, so numbers must not follow the order the bus happened to
// report them in: virtual cameras in the order --virtual named them (by their paths), then
// every other camera by serial, then path.
void Number(std::vector<OrqCameraInfo>& found, const std::vector<std::string>& virtualPaths) {
    auto key = [&](const OrqCameraInfo& camera) {
        std::string path = Utf8(camera.path);
        auto named = std::find(virtualPaths.begin(), virtualPaths.end(), path);
        return std::make_tuple(named - virtualPaths.begin(), Utf8(camera.serial), path);
    };
    std::stable_sort(
        found.begin(), found.end(),
        [&](const OrqCameraInfo& a, const OrqCameraInfo& b) { return key(a) < key(b); });
}

Outcome List(const std::vector<OrqCameraInfo>& cameras) {
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> json;
    for (size_t i = 0; i < cameras.size(); ++i) {
        const OrqCameraInfo& c = cameras[i];
        rows.push_back(
            {std::to_string(i), Utf8(c.name), Utf8(c.serial), Utf8(c.version), Utf8(c.path)});
        json.push_back(CameraJson(static_cast<int>(i), c));
    }
    PrintTable({"#", "NAME", "SERIAL", "MODULE", "PATH"}, rows);
    Outcome outcome;
    outcome.json = JsonArray(json);
    return outcome;
}

// Events of the manager (cameras arriving, going, failing to start) and of each camera.
struct Watcher {
    std::mutex lock;
    bool failed = false;

    void Line(const std::string& camera, const std::string& kind, const std::string& text,
              const std::string& json) {
        std::lock_guard<std::mutex> guard(lock);
        long long ms = MonotonicMs();
        Say("%10.3f  %-14s %-15s %s\n", ms / 1000.0, camera.c_str(), kind.c_str(), text.c_str());
        // A script reads each event as it happens: one object per line, flushed at once.
        if (io.json) {
            std::string line = JsonObject({{"t", JsonNumber(ms)},
                                           {"camera", JsonString(camera)},
                                           {"event", JsonString(kind)},
                                           {"data", json}});
            std::fprintf(io.out, "%s\n", line.c_str());
            std::fflush(io.out);
        }
        if (kind == "camera-error") failed = true;
    }

    static void OnList(void* context, OrqCameraInfo* info, int state) {
        std::string name = info ? Utf8(info->name) : "";
        sdk.Free(info);
        static_cast<Watcher*>(context)->Line(
            name, state == 0 ? "connected" : "disconnected", name,
            JsonObject({{"state", JsonString(state == 0 ? "connected" : "disconnected")}}));
    }
    static void OnInitError(void* context, int result, OrqChar* path) {
        std::string text = Utf8(path);
        sdk.Free(path);
        static_cast<Watcher*>(context)->Line(
            text, "start-failed", std::string(ResultName(result)) + " at " + text,
            JsonObject({{"result", JsonString(ResultName(result))}, {"path", JsonString(text)}}));
    }
};

Outcome Watch(const Options& options, OrqCameraManagerHandle manager,
              const std::vector<Camera*>& cameras) {
    int seconds = 10;
    if (!options.args.empty() &&
        (!ParseInteger(options.args[0], seconds) || seconds < 0 || seconds > 86400)) {
        return Failure(kExitUsage, "watch takes seconds from 0 to 86400");
    }
    Watcher watcher;
    sdk.CameraListChangedSubscribe(manager, Watcher::OnList, &watcher);
    sdk.CameraInitializationErrorSubscribe(manager, Watcher::OnInitError, &watcher);
    for (Camera* camera : cameras) {
        camera->SetEventSink([&watcher](Camera& from, const std::string& kind,
                                        const std::string& text, const std::string& json) {
            watcher.Line("#" + std::to_string(from.Index()) + " " + from.Name(), kind, text, json);
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    for (Camera* camera : cameras) camera->SetEventSink(nullptr);
    Outcome outcome;
    std::lock_guard<std::mutex> guard(watcher.lock);
    outcome.exit = watcher.failed ? kExitCameraError : kExitOk;
    outcome.streamed = true;
    // The manager's subscriptions go with termination, after which nothing calls back.
    return outcome;
}

using CameraVerb = Outcome (*)(const Options&, Camera&);

CameraVerb VerbFor(const std::string& verb) {
    static const std::vector<std::pair<std::string, CameraVerb>> verbs = {
        {"info", Info},   {"props", Props},       {"get", Get},       {"set", Set},
        {"reset", Reset}, {"zoom", Zoom},         {"focus", Focus},   {"video", Video},
        {"files", Files}, {"download", Download}, {"delete", Delete}, {"preview", Preview},
        {"shoot", Shoot},
    };
    for (const auto& [name, function] : verbs)
        if (name == verb) return function;
    return nullptr;
}

// Why no verb can run on the cameras found, if none can.
std::optional<Outcome> Unreachable(const Options& options, size_t found, bool simulated) {
    // A page that drives a rig needs no camera of its own.
    if (found == 0 && options.verb == "serve" && !options.broker.empty()) return std::nullopt;
    if (found == 0) {
        std::string hint = simulated ? ""
                                     : std::string("; ") + kPermissionHint +
                                           ". Or try a virtual camera: orqcam --virtual "
                                           "SX160 " +
                                           options.verb;
        return Failure(kExitNoCamera, "no camera found" + hint);
    }
    if (options.camera >= static_cast<int>(found)) {
        return Failure(kExitUsage, "there is no camera " + std::to_string(options.camera) +
                                       "; orqcam list numbers them 0 to " +
                                       std::to_string(found - 1));
    }
    return std::nullopt;
}

// Opens the chosen cameras (all of them for serve and --all) into `owned` and `cameras`; the
// failure, if one does not open.
std::optional<Outcome> OpenChosen(const Options& options, OrqCameraManagerHandle manager,
                                  const std::vector<OrqCameraInfo>& found,
                                  std::vector<std::unique_ptr<Camera>>& owned,
                                  std::vector<Camera*>& cameras) {
    for (size_t i = 0; i < found.size(); ++i) {
        if (!options.all && options.verb != "serve" && options.verb != "node" &&
            static_cast<int>(i) != options.camera)
            continue;
        owned.push_back(std::make_unique<Camera>(static_cast<int>(i), found[i]));
        OrqResult opened = owned.back()->Open(manager);
        if (opened != ORQ_OK) {
            return FailureOf(opened,
                             "cannot open camera " + std::to_string(i) +
                                 (opened == ORQ_SESSION_BUSY ? " (a session is open)" : ""));
        }
        cameras.push_back(owned.back().get());
    }
    return std::nullopt;
}

// A per-camera verb on several cameras, one after the other; the first failure's exit stands.
Outcome OnEach(const Options& options, const std::vector<Camera*>& cameras) {
    Outcome outcome;
    std::vector<std::string> json;
    for (Camera* camera : cameras) {
        Say("#%d %s\n", camera->Index(), camera->Name().c_str());
        Outcome one = VerbFor(options.verb)(options, *camera);
        if (outcome.exit == kExitOk) outcome.exit = one.exit;
        json.push_back(JsonObject({{"camera", JsonNumber(camera->Index())},
                                   {"name", JsonString(camera->Name())},
                                   {"exit", JsonNumber(one.exit)},
                                   {"output", one.json}}));
    }
    outcome.json = JsonObject({{"cameras", JsonArray(json)}});
    return outcome;
}

Outcome Dispatch(const Options& options, OrqCameraManagerHandle manager,
                 const std::vector<Camera*>& cameras) {
    if (options.verb == "serve") {
#ifdef ORQCAM_SERVE
        return Serve(options, cameras);
#else
        return Failure(kExitUsage, "this orqcam was built without the server");
#endif
    }
    if (options.verb == "node") {
#ifdef ORQCAM_RIG
        return RigNode(options, cameras);
#else
        return Failure(kExitUsage, "this orqcam was built without rigs (libmosquitto)");
#endif
    }
    if (options.verb == "watch") return Watch(options, manager, cameras);
    if (options.verb == "shoot") return ShootAll(options, cameras);
    if (cameras.size() == 1) return VerbFor(options.verb)(options, *cameras[0]);
    return OnEach(options, cameras);
}

// The cameras opened go to `owned`, to be destroyed after termination.
Outcome RunOnCameras(const Options& options, OrqCameraManagerHandle manager,
                     const std::vector<OrqCameraInfo>& found, bool simulated,
                     std::vector<std::unique_ptr<Camera>>& owned) {
    if (options.verb == "list") {
        Outcome listed = List(found);
        if (found.empty()) {
            Warn("orqcam: no camera found%s%s\n", simulated ? "" : "; ",
                 simulated ? "" : kPermissionHint);
            listed.exit = kExitNoCamera;
        }
        return listed;
    }
    if (auto refused = Unreachable(options, found.size(), simulated)) return *refused;
    std::vector<Camera*> cameras;
    if (auto failed = OpenChosen(options, manager, found, owned, cameras)) return *failed;
    return Dispatch(options, manager, cameras);
}

Outcome Version() {
    OrqChar* text = nullptr;
    sdk.GetSDKVersion(&text);
    std::string version = Utf8(text);
    Say("orqcam %s\nOrqSDK %s\n", kVersion, version.c_str());
    Outcome outcome;
    outcome.json = JsonObject({{"orqcam", JsonString(kVersion)}, {"sdk", JsonString(version)}});
    return outcome;
}

Outcome Started(const Options& options, bool simulated,
                const std::vector<std::string>& virtualPaths) {
    OrqResult started = sdk.InitializeSDK();
    if (started == ORQ_SECOND_PROCESS) {
        return Failure(kExitSdk, "another program on this machine is using the SDK", started);
    }
    if (started != ORQ_OK) return FailureOf(started, "the SDK did not start");
    OrqCameraManagerHandle manager = sdk.GetCameraManager();
    OrqCameraInfo* list = nullptr;
    int count = 0;
    OrqResult listed = sdk.GetCameraList(manager, &list, &count);
    std::vector<OrqCameraInfo> found;
    if (listed == ORQ_OK && list) found.assign(list, list + count);
    sdk.Free(list);
    Number(found, virtualPaths);
    Outcome outcome;
    std::vector<std::unique_ptr<Camera>> owned;
    if (listed != ORQ_OK) {
        outcome = FailureOf(listed, "cannot list the cameras");
    } else {
        outcome = RunOnCameras(options, manager, found, simulated, owned);
    }
    // Each verb has waited for the work it queued; what is left is released here, and the
    // camera threads stop before the objects their callbacks reach are destroyed.
    for (const auto& camera : owned) camera->Close();
    sdk.TerminateSDK();
    owned.clear();
    return outcome;
}

}  // namespace

int Run(const std::vector<std::string>& arguments, bool simulated) {
    io.json = io.quiet = false;
    Options options;
    Parsed parsed = ParseArguments(arguments, options);
    if (parsed == Parsed::Done) return kExitOk;
    if (parsed == Parsed::Usage) return kExitUsage;
    simulated = simulated || !options.models.empty();
    Outcome outcome;
    std::string error;
    std::vector<OrqSimCamera> attached;
    if (options.verb == "rig") {
#ifdef ORQCAM_RIG
        outcome = RigControl(options);
#else
        outcome = Failure(kExitUsage, "this orqcam was built without rigs (libmosquitto)");
#endif
    } else if (!sdk.Load(simulated, error)) {
        outcome = Failure(kExitSdk, error);
    } else if (options.version) {
        outcome = Version();
    } else {
        std::vector<std::string> paths;
        for (const std::string& model : options.models) {
            OrqSimCamera camera = sdk.SimAttachCamera(model.c_str());
            if (!camera) continue;
            // A card that lasts: what one run shoots, the next finds (serials follow the order).
            if (sdk.SimSetCardFolder) sdk.SimSetCardFolder(camera, nullptr);
            attached.push_back(camera);
            OrqChar path[512] = {};
            if (sdk.SimGetCameraPath(camera, path, 512) == ORQ_OK) paths.push_back(Utf8(path));
            if (options.latencyUs || options.latencyNsPerByte)
                sdk.SimSetLatency(camera, static_cast<uint32_t>(options.latencyUs),
                                  static_cast<uint32_t>(options.latencyNsPerByte));
        }
        outcome = Started(options, simulated, paths);
        for (OrqSimCamera camera : attached) sdk.SimRemoveCamera(camera);
    }
    if (io.json && !outcome.streamed) {
        std::fprintf(io.out, "%s\n", outcome.json.c_str());
        std::fflush(io.out);
    }
    return outcome.exit;
}

}  // namespace orqcam
