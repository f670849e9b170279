// orqcam node: this machine's cameras as part of a rig. Commands arrive on the broker's network
// thread and are done in order on one worker thread, which alone calls the SDK for the rig.
#include <dirent.h>
#include <httplib.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "Rig.h"
#include "Serve.h"
#include "ServeServer.h"
#include "Verbs.h"
#include "models/CameraConfig.h"

namespace orqcam {
namespace rig {

namespace {

// The settings a rig's pictures depend on, as the camera records and manifests carry them.
const int kRigSettings[] = {ORQ_PROP_SHOOTING_MODE,
                            ORQ_PROP_TV,
                            ORQ_PROP_AV,
                            ORQ_PROP_ISO_SPEED,
                            ORQ_PROP_EXPOSURE_COMPENSATION,
                            ORQ_PROP_WB_MODE,
                            ORQ_PROP_IMAGE_SIZE,
                            ORQ_PROP_JPEG_QUALITY,
                            ORQ_PROP_FLASH_MODE,
                            ORQ_PROP_METERING_MODE,
                            ORQ_PROP_FOCUSING_ZONE};
constexpr long long kLongestLeadUs = 60LL * 1000 * 1000;
constexpr int kShotWaitMs = 30000;
constexpr int kDownloadWaitMs = 120000;
constexpr size_t kMaxQueued = 256;
constexpr std::chrono::seconds kClockCheck{10};
const char* kNamePattern = "([A-Za-z0-9._-]{1,64})";
// What a camera's entry in a shot record holds for the collector alone: left out of the reports.
const char* const kRecordOnly[] = {"settings", "serial",        "model",          "name",
                                   "make",     "focalLengthMm", "focalLength35mm"};

Json ClockState() {
    timex clock{};
    int state = adjtimex(&clock);
    bool synchronised = state != -1 && state != TIME_ERROR && !(clock.status & STA_UNSYNC);
    long long offset = (clock.status & STA_NANO) ? clock.offset / 1000 : clock.offset;
    return {{"synchronised", synchronised},
            {"estErrorUs", static_cast<long long>(clock.esterror)},
            {"maxErrorUs", static_cast<long long>(clock.maxerror)},
            {"offsetUs", offset}};
}

std::string Model(const std::string& product) {
    size_t space = product.rfind(' ');
    return space == std::string::npos ? product : product.substr(space + 1);
}

std::u16string Wide(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return in ? text.str() : "";
}

struct Member {
    Camera* camera = nullptr;
    std::string key;  // its topic level
    std::string serial, model, name;
    const orq::CameraConfig* profile = nullptr;  // null: a model without one
};

class Node {
public:
    Node(const Options& options, const std::vector<Camera*>& cameras)
        : options(options), cameras(cameras) {}
    Outcome Run();

private:
    std::string Topic(const std::string& rest) const { return Prefix(options.rig) + rest; }
    Json NodeState();
    Json CameraRecord(const Member& member);
    Json Settings(const Member& member);
    // Settings, zoom step and lens read back after a shot, into a camera's shot entry.
    void ReadBack(const Member& member, Json& entry);
    void PublishState();
    void OnMessage(const std::string& topic, const std::string& payload);
    void OnEvent(size_t index, const std::string& kind, const std::string& json);
    void PublishSetting(const Member& member, const Json& property);
    void Work();
    void Do(const std::string& kind, const Json& command);
    // The chosen cameras' indices; false when the command names none of this node's.
    bool Choose(const Json& command, std::vector<size_t>& chosen);
    void Fire(const Json& command, const std::vector<size_t>& chosen);
    // save writes the shot's record; it runs before the shot event, so that whoever acts on
    // the event finds the file in the record.
    void Keep(const std::string& id, Json& entry, size_t index, int shotsBefore,
              const std::function<void()>& save);
    void Adjust(const std::string& kind, const Json& command, const std::vector<size_t>& chosen);
    void LoadKnown();
    void Routes(httplib::Server& http);

    const Options& options;
    const std::vector<Camera*>& cameras;
    std::string node, store;
    long long started = 0;
    std::vector<Member> members;
    Broker broker;

    std::mutex lock;  // everything below
    std::condition_variable wake;
    std::deque<std::pair<std::string, Json>> queue;
    std::set<size_t> dirty;  // camera records to publish
    bool stateDue = false;
    bool stopping = false;
    std::string url, token;
    Json clock;
    std::map<std::string, Json> known;  // report of every shot id fired
};

void Node::LoadKnown() {
    DIR* folder = opendir(store.c_str());
    if (!folder) return;
    while (dirent* entry = readdir(folder)) {
        std::string id = entry->d_name;
        if (!ValidName(id)) continue;
        Json record;
        if (ParseObject(ReadFile(store + "/" + id + "/" + node + ".json"), record))
            known[id] = record;
    }
    closedir(folder);
}

Json Node::NodeState() {
    std::lock_guard<std::mutex> guard(lock);
    OrqChar* version = nullptr;
    sdk.GetSDKVersion(&version);
    return {{"v", kVersion},      {"node", node},
            {"online", true},     {"version", Utf8(version)},
            {"started", started}, {"files", {{"url", url}, {"token", token}}},
            {"clock", clock},     {"cameras", members.size()}};
}

Json Node::Settings(const Member& member) {
    Json settings = Json::object();
    for (int id : kRigSettings) {
        int value = 0;
        if (sdk.GetPropertyData(member.camera->Session(), id, &value) == ORQ_OK)
            settings[PropertyName(id)] = ValueName(id, value);
    }
    return settings;
}

void Node::ReadBack(const Member& member, Json& entry) {
    entry["settings"] = Settings(member);
    int zoom = 0;
    const bool known = sdk.GetZoom(member.camera->Session(), &zoom) == ORQ_OK;
    entry["zoom"] = known ? Json(zoom) : Json();
    entry["make"] = member.profile ? Json(orq::kMakerWord) : Json();
    const uint32_t hundredths = known && member.profile ? member.profile->FocalHundredths(zoom) : 0;
    entry["focalLengthMm"] = hundredths ? Json(hundredths / 100.0) : Json();
    entry["focalLength35mm"] = hundredths ? Json(member.profile->Focal35mm(zoom)) : Json();
}

Json Node::CameraRecord(const Member& member) {
    OrqSessionHandle session = member.camera->Session();
    OrqResult failure = member.camera->Failure();
    int state = ORQ_CAMERA_DISCONNECTED, battery = 0, zoom = 0, maxZoom = 0;
    sdk.GetCameraConnectionState(session, &state);
    Json record = {{"v", kVersion},
                   {"node", node},
                   {"camera", member.key},
                   {"index", member.camera->Index()},
                   {"serial", member.serial},
                   {"model", member.model},
                   {"name", member.name},
                   {"online", state == ORQ_CAMERA_CONNECTED && failure == ORQ_OK},
                   {"failure", failure == ORQ_OK ? Json() : Json(ResultName(failure))}};
    if (sdk.GetPropertyData(session, ORQ_PROP_BATTERY_LEVEL, &battery) == ORQ_OK)
        record["battery"] = ValueName(ORQ_PROP_BATTERY_LEVEL, battery);
    if (sdk.GetZoom(session, &zoom) == ORQ_OK) record["zoom"] = zoom;
    if (sdk.GetMaximumZoom(session, &maxZoom) == ORQ_OK) record["maxZoom"] = maxZoom;
    record["settings"] = Settings(member);
    return record;
}

void Node::PublishState() {
    Json state = NodeState();
    if (TextOf(state["files"], "url").empty()) return;  // not listening yet
    broker.Publish(Topic("node/" + node), state.dump(), true);
}

void Node::OnMessage(const std::string& topic, const std::string& payload) {
    std::string kind = topic.substr(topic.rfind('/') + 1);
    Json command;
    if (!ParseObject(payload, command) || NumberOf(command, "v") != kVersion) {
        Warn("orqcam node: ignored a message on %s that is not a version %d object\n",
             topic.c_str(), kVersion);
        return;
    }
    std::lock_guard<std::mutex> guard(lock);
    if (queue.size() >= kMaxQueued) {
        Warn("orqcam node: %zu commands waiting; dropped one on %s\n", queue.size(), topic.c_str());
        return;
    }
    queue.emplace_back(kind, std::move(command));
    wake.notify_all();
}

void Node::PublishSetting(const Member& member, const Json& property) {
    broker.Publish(Topic("event/" + node + "/" + member.key + "/setting"),
                   Json{{"v", kVersion},
                        {"node", node},
                        {"camera", member.key},
                        {"setting", TextOf(property, "name")},
                        {"value", TextOf(property, "valueName")},
                        {"time", UtcMicros()}}
                       .dump(),
                   false);
}

void Node::OnEvent(size_t index, const std::string& kind, const std::string& json) {
    if (kind != "property" && kind != "camera-error" && kind != "zoom") return;
    const Member& member = members[index];
    std::string base = "event/" + node + "/" + member.key + "/";
    Json data;
    ParseObject(json, data);
    if (kind == "property") {
        PublishSetting(member, data);
    } else if (kind == "camera-error") {
        broker.Publish(Topic(base + "error"),
                       Json{{"v", kVersion},
                            {"node", node},
                            {"camera", member.key},
                            {"result", TextOf(data, "result")},
                            {"time", UtcMicros()}}
                           .dump(),
                       false);
    }
    std::lock_guard<std::mutex> guard(lock);
    dirty.insert(index);
    wake.notify_all();
}

bool Node::Choose(const Json& command, std::vector<size_t>& chosen) {
    auto list = command.find("cameras");
    bool everyone = list == command.end() || list->is_null() || (list->is_array() && list->empty());
    for (size_t i = 0; i < members.size(); ++i) {
        bool wanted = everyone;
        if (!everyone && list->is_array()) {
            for (const Json& entry : *list) {
                if (!entry.is_string()) continue;
                const std::string name = entry.get<std::string>();
                wanted = wanted || name == node || name == node + "/" + members[i].key;
            }
        }
        if (wanted) chosen.push_back(i);
    }
    if (!everyone && list->is_array()) {
        // A node named with no camera (it has none) still answers.
        for (const Json& entry : *list)
            if (entry.is_string() && entry.get<std::string>() == node) return true;
    }
    return !chosen.empty() || (everyone && members.empty());
}

void Node::Work() {
    auto lastClockCheck = std::chrono::steady_clock::now() - kClockCheck;
    for (;;) {
        std::pair<std::string, Json> command;
        std::set<size_t> records;
        bool state = false;
        {
            std::unique_lock<std::mutex> guard(lock);
            wake.wait_for(guard, kClockCheck, [this] {
                return stopping || !queue.empty() || !dirty.empty() || stateDue;
            });
            if (stopping) return;
            if (!queue.empty()) {
                command = std::move(queue.front());
                queue.pop_front();
            }
            records.swap(dirty);
            std::swap(state, stateDue);
        }
        if (std::chrono::steady_clock::now() - lastClockCheck >= kClockCheck) {
            lastClockCheck = std::chrono::steady_clock::now();
            Json now = ClockState();
            std::lock_guard<std::mutex> guard(lock);
            if (FlagOf(clock, "synchronised") != now["synchronised"].get<bool>() ||
                !clock.contains("estErrorUs")) {
                clock = now;
                state = true;
            }
        }
        if (state) PublishState();
        for (size_t index : records) {
            broker.Publish(Topic("camera/" + node + "/" + members[index].key),
                           CameraRecord(members[index]).dump(), true);
        }
        if (command.first.empty()) continue;
        // A command of any shape is answered or dropped; it never ends the node.
        try {
            Do(command.first, command.second);
        } catch (const std::exception& error) {
            Warn("orqcam node: a %s command could not be read: %s\n", command.first.c_str(),
                 error.what());
        }
    }
}

void Node::Do(const std::string& kind, const Json& command) {
    const std::string id = TextOf(command, "id");
    if (!ValidName(id)) {
        Warn("orqcam node: a %s command without a usable id; ignored\n", kind.c_str());
        return;
    }
    std::vector<size_t> chosen;
    if (!Choose(command, chosen)) return;
    if (kind == "fire") return Fire(command, chosen);
    if (kind == "set" || kind == "zoom") return Adjust(kind, command, chosen);
    Warn("orqcam node: unknown command %s\n", kind.c_str());
}

void Node::Fire(const Json& command, const std::vector<size_t>& chosen) {
    const std::string id = TextOf(command, "id");
    const std::string reportTopic = Topic("report/" + node + "/" + id);
    const long long received = UtcMicros();
    Json report;
    {
        std::lock_guard<std::mutex> guard(lock);
        auto found = known.find(id);
        if (found != known.end()) report = found->second;
    }
    if (!report.is_null()) {
        // Fired once only: the first time's report again.
        if (report.contains("cameras")) {
            for (Json& entry : report["cameras"]) {
                entry.erase("files");
                for (const char* local : kRecordOnly) entry.erase(local);
            }
        }
        report["duplicate"] = true;
        broker.Publish(reportTopic, report.dump(), false);
        return;
    }
    const long long at = NumberOf(command, "at", 0);
    report = {{"v", kVersion}, {"kind", "fire"},       {"id", id},          {"node", node},
              {"at", at},      {"received", received}, {"duplicate", false}};
    std::string refused;
    if (at <= 0) refused = "the command has no time (at)";
    if (at - received > kLongestLeadUs) refused = "at is more than 60 s ahead";
    if (!sdk.ShootSynchronizedAt) refused = "this SDK has no release at a given time";
    if (!refused.empty()) {
        report["error"] = refused;
        broker.Publish(reportTopic, report.dump(), false);
        return;
    }
    // Cameras whose session has ended are not asked.
    std::vector<OrqSessionHandle> sessions;
    std::vector<size_t> asked;
    std::vector<int> shotsBefore(members.size(), 0);
    Json entries = Json::array();
    for (size_t index : chosen) {
        const Member& member = members[index];
        member.camera->TakeShots();
        shotsBefore[index] = member.camera->Seen().shots;
        entries.push_back({{"camera", member.key},
                           {"index", member.camera->Index()},
                           {"serial", member.serial},
                           {"model", member.model},
                           {"name", member.name}});
        if (member.camera->Failure() == ORQ_OK) {
            sessions.push_back(member.camera->Session());
            asked.push_back(entries.size() - 1);
        } else {
            entries.back()["status"] = "failed";
            entries.back()["result"] = ResultName(member.camera->Failure());
        }
    }
    std::vector<OrqReleaseReport> releases(sessions.size());
    if (!sessions.empty())
        sdk.ShootSynchronizedAt(sessions.data(), static_cast<int>(sessions.size()), at,
                                releases.data());
    for (size_t k = 0; k < asked.size(); ++k) {
        Json& entry = entries[asked[k]];
        const OrqReleaseReport& release = releases[k];
        entry["result"] = ResultName(release.result);
        if (release.result == ORQ_OK) {
            entry["status"] = "fired";
            entry["sent"] = static_cast<long long>(release.sentUtcUs);
            entry["lateUs"] = static_cast<long long>(release.lateUs);
        } else if (release.result == ORQ_TOO_LATE) {
            entry["status"] = "late";
            if (release.lateUs > 0) entry["readyLateUs"] = static_cast<long long>(release.lateUs);
        } else {
            entry["status"] = "failed";
        }
    }
    // What the pictures were taken with: read after the release, as the camera stands now.
    for (size_t k = 0; k < entries.size(); ++k) ReadBack(members[chosen[k]], entries[k]);
    report["cameras"] = entries;
    Json published = report;
    for (Json& entry : published["cameras"]) {
        for (const char* local : kRecordOnly) entry.erase(local);
    }
    {
        std::lock_guard<std::mutex> guard(lock);
        known[id] = report;
    }
    broker.Publish(reportTopic, published.dump(), false);

    // The pictures: every fired camera's is downloaded into the store and read back.
    const std::string folder = store + "/" + id;
    MakeFolders(folder + "/" + node);
    const std::string recordPath = folder + "/" + node + ".json";
    WriteAtomically(recordPath, report.dump());
    for (size_t k = 0; k < asked.size(); ++k) {
        Json& entry = report["cameras"][asked[k]];
        size_t index = chosen[asked[k]];
        if (entry["status"] == "fired") {
            Keep(id, entry, index, shotsBefore[index],
                 [&] { WriteAtomically(recordPath, report.dump()); });
        } else {
            entry["files"] = Json::array();
            entry["reason"] =
                entry["status"] == "late" ? "late" : "failed: " + TextOf(entry, "result");
        }
    }
    for (Json& entry : report["cameras"]) {
        if (!entry.contains("files")) {
            entry["files"] = Json::array();
            entry["reason"] = "failed: " + TextOf(entry, "result");
        }
    }
    WriteAtomically(recordPath, report.dump());
    std::lock_guard<std::mutex> guard(lock);
    known[id] = report;
}

void Node::Keep(const std::string& id, Json& entry, size_t index, int shotsBefore,
                const std::function<void()>& save) {
    const Member& member = members[index];
    Camera& camera = *member.camera;
    const std::string event = Topic("event/" + node + "/" + member.key + "/shot");
    auto fail = [&](const std::string& reason) {
        entry["files"] = Json::array();
        entry["reason"] = reason;
        save();
        broker.Publish(event,
                       Json{{"v", kVersion},
                            {"node", node},
                            {"camera", member.key},
                            {"shot", id},
                            {"ok", false},
                            {"reason", reason}}
                           .dump(),
                       false);
    };
    bool timedOut = false;
    OrqResult waited = camera.WaitUntil(
        [shotsBefore](const Camera::Counts& now) { return now.shots > shotsBefore; }, kShotWaitMs,
        &timedOut);
    std::vector<FileRecord> shots = camera.TakeShots();
    if (waited != ORQ_OK || shots.empty()) {
        return fail(timedOut ? "no picture within 30 s"
                             : "failed: " + std::string(ResultName(waited)));
    }
    const FileRecord file = shots.back();
    const std::string name = SafeName(file.name);
    const std::string relative = id + "/" + node + "/" + member.key + "/" + name;
    const std::string path = store + "/" + relative;
    if (!MakeFolders(store + "/" + id + "/" + node + "/" + member.key))
        return fail("download failed: cannot make the folder");
    camera.TakeDownloads();
    const int downloadsBefore = camera.Seen().downloads;
    std::u16string wide = Wide(path);
    OrqResult queued = sdk.DownloadFileTo(camera.Session(), file.id,
                                          reinterpret_cast<OrqChar*>(wide.data()), ORQ_KEEP_FILE);
    if (queued == ORQ_OK) {
        queued = camera.WaitUntil(
            [downloadsBefore](const Camera::Counts& now) {
                return now.downloads > downloadsBefore;
            },
            kDownloadWaitMs, &timedOut);
    }
    if (queued != ORQ_OK)
        return fail("download failed: " + std::string(timedOut ? "timeout" : ResultName(queued)));
    uint64_t size = 0;
    const std::string sha = FileSha256(path, &size);
    if (sha.empty() || size != file.size)
        return fail("download failed: " + std::to_string(size) + " bytes on disk of " +
                    std::to_string(file.size));
    entry["files"] = Json::array({{{"name", name},
                                   {"path", relative},
                                   {"size", size},
                                   {"sha256", sha},
                                   {"fileId", file.id}}});
    save();
    broker.Publish(event,
                   Json{{"v", kVersion},
                        {"node", node},
                        {"camera", member.key},
                        {"shot", id},
                        {"fileId", file.id},
                        {"name", name},
                        {"size", size},
                        {"sha256", sha},
                        {"path", relative},
                        {"time", UtcMicros()}}
                       .dump(),
                   false);
}

void Node::Adjust(const std::string& kind, const Json& command, const std::vector<size_t>& chosen) {
    const std::string id = TextOf(command, "id");
    Options adjusted = options;
    adjusted.args.clear();
    std::string error;
    if (kind == "set") {
        auto setting = command.find("setting");
        auto value = command.find("value");
        for (auto found : {setting, value}) {
            if (found == command.end()) {
                error = "set needs setting and value";
            } else if (found->is_string()) {
                adjusted.args.push_back(found->get<std::string>());
            } else if (found->is_number_integer()) {
                adjusted.args.push_back(std::to_string(found->get<long long>()));
            } else {
                error = "setting and value are names or numbers";
            }
        }
    } else {
        auto zoom = command.find("zoom");
        if (zoom != command.end() && zoom->is_number_integer())
            adjusted.args.push_back(std::to_string(zoom->get<long long>()));
        else if (zoom != command.end() && zoom->is_string())
            adjusted.args.push_back(zoom->get<std::string>());
        else
            error = "zoom needs a step or \"max\"";
    }
    Json report = {{"v", kVersion}, {"kind", kind}, {"id", id}, {"node", node}};
    if (!error.empty()) {
        report["error"] = error;
    } else {
        // Every camera at once: a zoom takes a second or more, and the cameras have a thread each.
        std::vector<Outcome> outcomes(chosen.size());
        std::vector<std::thread> workers;
        for (size_t k = 0; k < chosen.size(); ++k) {
            workers.emplace_back([&, k] {
                Camera& camera = *members[chosen[k]].camera;
                outcomes[k] = kind == "set" ? Set(adjusted, camera) : Zoom(adjusted, camera);
            });
        }
        for (std::thread& worker : workers) worker.join();
        Json entries = Json::array();
        for (size_t k = 0; k < chosen.size(); ++k) {
            const size_t index = chosen[k];
            const Outcome& outcome = outcomes[k];
            Json output;
            ParseObject(outcome.json, output);
            Json entry = {
                {"camera", members[index].key},
                {"result", outcome.exit == kExitOk ? std::string("ORQ_OK")
                                                   : TextOf(output, "result", "ORQ_ERROR")}};
            if (outcome.exit != kExitOk) {
                entry["error"] = TextOf(output, "error");
                entry["exit"] = outcome.exit;  // as orqcam set or zoom on this camera
            }
            if (outcome.exit == kExitOk && kind == "set") {
                entry["value"] = TextOf(output, "valueName");
                // The camera tells only of changes made at it; ours are told here.
                PublishSetting(members[index], output);
            }
            if (outcome.exit == kExitOk && kind == "zoom") entry["zoom"] = NumberOf(output, "zoom");
            entries.push_back(entry);
            // Before the report: whoever reads the report finds the records already new.
            broker.Publish(Topic("camera/" + node + "/" + members[index].key),
                           CameraRecord(members[index]).dump(), true);
        }
        report["cameras"] = entries;
    }
    broker.Publish(Topic("report/" + node + "/" + id), report.dump(), false);
}

void Node::Routes(httplib::Server& http) {
    http.Get("/api/rig/shots", [this](const httplib::Request&, httplib::Response& response) {
        Json ids = Json::array();
        {
            std::lock_guard<std::mutex> guard(lock);
            for (const auto& [id, record] : known) ids.push_back(id);
        }
        response.set_content(ids.dump() + "\n", "application/json");
    });
    http.Get(std::string("/api/rig/shots/") + kNamePattern, [this](const httplib::Request& request,
                                                                   httplib::Response& response) {
        std::string id = request.matches[1];
        std::string text = ValidName(id) ? ReadFile(store + "/" + id + "/" + node + ".json") : "";
        if (text.empty()) {
            response.status = 404;
            response.set_content(
                Json{{"error", "no such shot here"}, {"result", "ORQ_ERROR"}}.dump() + "\n",
                "application/json");
            return;
        }
        response.set_header("Cache-Control", "no-store");
        response.set_content(text + "\n", "application/json");
    });
    std::string file = std::string("/api/rig/shots/") + kNamePattern + "/" + kNamePattern + "/" +
                       kNamePattern + "/" + kNamePattern;
    http.Get(file, [this](const httplib::Request& request, httplib::Response& response) {
        std::string path = store;
        for (size_t i = 1; i <= 4; ++i) {
            std::string part = request.matches[i];
            if (!ValidName(part)) {
                response.status = 400;
                return;
            }
            path += "/" + part;
        }
        if (!serve::StreamFile(response, path)) {
            response.status = 404;
            response.set_content(
                Json{{"error", "no such file here"}, {"result", "ORQ_ERROR"}}.dump() + "\n",
                "application/json");
        }
    });
}

Outcome Node::Run() {
    if (!ValidName(options.rig))
        return Failure(kExitUsage, "--rig takes a name of A-Z a-z 0-9 . _ -");
    // The verbs a command runs on each camera print their tables; a node's output is its log.
    io.quiet = true;
    node = options.node;
    if (node.empty()) {
        char host[256] = {};
        gethostname(host, sizeof host - 1);
        node = SafeName(host);
    }
    if (!ValidName(node)) return Failure(kExitUsage, "--node takes a name of A-Z a-z 0-9 . _ -");
    store = options.store.empty() ? "orqcam-rig" : options.store;
    while (store.size() > 1 && store.back() == '/') store.pop_back();
    if (!MakeFolders(store)) return Failure(kExitUsage, "cannot make the store " + store);
    LoadKnown();

    // Serials name the cameras; where two share one, their place on this node tells them apart.
    std::map<std::string, int> serials;
    for (Camera* camera : cameras) ++serials[SafeName(Utf8(camera->Info().serial))];
    for (Camera* camera : cameras) {
        Member member;
        member.camera = camera;
        member.serial = Utf8(camera->Info().serial);
        member.name = Utf8(camera->Info().name);
        member.model = Model(member.name);
        const OrqChar* product = camera->Info().name;
        member.profile = orq::FindCameraConfig(
            std::u16string(product, product + std::char_traits<OrqChar>::length(product)));
        std::string serial = member.serial.empty() ? "unknown" : SafeName(member.serial);
        member.key = serials[serial] > 1 || member.serial.empty()
                         ? SafeName(serial.substr(0, 50) + "." + std::to_string(camera->Index()))
                         : serial;
        members.push_back(member);
    }
    clock = ClockState();
    started = UtcMicros();

    broker.OnMessage([this](const std::string& topic, const std::string& payload) {
        OnMessage(topic, payload);
    });
    broker.OnConnected([this] {
        broker.Subscribe(Topic("cmd/+"));
        std::lock_guard<std::mutex> guard(lock);
        stateDue = true;
        for (size_t i = 0; i < members.size(); ++i) dirty.insert(i);
        wake.notify_all();
    });
    const std::string stateTopic = Topic("node/" + node);
    Outcome connected = broker.Connect(
        options, "orq-" + options.rig + "-" + node, stateTopic,
        Json{{"v", kVersion}, {"node", node}, {"online", false}, {"reason", "lost"}}.dump(), 10000);
    if (connected.exit != kExitOk) return connected;
    for (size_t i = 0; i < members.size(); ++i) {
        members[i].camera->SetEventTap(
            [this, i](Camera&, const std::string& kind, const std::string&,
                      const std::string& json) { OnEvent(i, kind, json); });
    }
    std::thread worker([this] { Work(); });

    ServeExtension extension;
    extension.routes = [this](httplib::Server& http) { Routes(http); };
    extension.listening = [this](const std::string& host, int port, const std::string& secret) {
        std::string reachable =
            host == "0.0.0.0" || host == "::" || host.empty() ? broker.LocalAddress() : host;
        if (reachable.find(':') != std::string::npos && reachable.front() != '[')
            reachable = "[" + reachable + "]";
        {
            std::lock_guard<std::mutex> guard(lock);
            url = "http://" + reachable + ":" + std::to_string(port) + "/";
            token = secret;
            stateDue = true;
        }
        wake.notify_all();
        Warn("orqcam node: %s in rig %s, %zu camera%s, files on %s\n", node.c_str(),
             options.rig.c_str(), members.size(), members.size() == 1 ? "" : "s", url.c_str());
    };
    Options served = options;
    if (served.listen.empty()) served.listen = "0.0.0.0:0";
    Outcome outcome = Serve(served, cameras, &extension);

    {
        std::lock_guard<std::mutex> guard(lock);
        stopping = true;
    }
    wake.notify_all();
    worker.join();
    for (Member& member : members) member.camera->SetEventTap(nullptr);
    broker.Publish(
        stateTopic,
        Json{{"v", kVersion}, {"node", node}, {"online", false}, {"reason", "stopped"}}.dump(),
        true, 2000);
    broker.Disconnect();
    return outcome;
}

}  // namespace

}  // namespace rig

Outcome RigNode(const Options& options, const std::vector<Camera*>& cameras) {
    rig::Node node(options, cameras);
    return node.Run();
}

}  // namespace orqcam
