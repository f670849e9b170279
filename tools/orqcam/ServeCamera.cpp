// A camera's state, settings and controls in orqcam serve.
#include <mutex>

#include "ServeServer.h"
#include "Verbs.h"

namespace orqcam {
namespace serve {

namespace {

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
            shots.push_back(FileJson(shot.id, shot.name, shot.size));
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

std::vector<int> Server::SettingIds(Feed& feed) {
    int* list = nullptr;
    int count = 0;
    // Fails only for a null argument.
    sdk.GetPropertyList(feed.camera->Session(), &list, &count);
    std::vector<int> ids(list, list + (list ? count : 0));
    sdk.Free(list);
    return ids;
}

bool Server::FindSetting(Feed& feed, const std::string& text, int& id) {
    for (int candidate : SettingIds(feed)) {
        if (std::to_string(candidate) == text || Lower(PropertyName(candidate)) == Lower(text)) {
            id = candidate;
            return true;
        }
    }
    return false;
}

Answer Server::Cameras(const Request&, Response&) {
    std::vector<std::string> cameras;
    for (size_t i = 0; i < hub.Count(); ++i) cameras.push_back(CameraJson(i));
    return Ok(JsonArray(cameras));
}

Answer Server::OneCamera(Call& call) {
    return Ok(CameraJson(static_cast<size_t>(call.feed.camera->Index())));
}

Answer Server::Settings(Call& call) {
    std::vector<std::string> settings;
    for (int id : SettingIds(call.feed)) {
        std::string one = SettingJson(call.feed, id);
        if (!one.empty()) settings.push_back(one);
    }
    return Ok(JsonArray(settings));
}

Answer Server::Setting(Call& call) {
    return Ok(SettingJson(call.feed, call.id));
}

Answer Server::Set(Call& call) {
    Feed& feed = call.feed;
    const int id = call.id;
    auto given = call.body.find("value");
    if (given == call.body.end()) return Fail(400, "the body needs \"value\"");
    // A value by its name as the page shows it, or by its number.
    int value = 0;
    bool found = !given->second.isString && ParseInteger(given->second.text, value);
    OrqPropertyDesc* desc = nullptr;
    // A name first: some names are numbers ("0" of the exposure compensation).
    if (!found && sdk.GetPropertyDesc(feed.camera->Session(), id, &desc) == ORQ_OK && desc) {
        for (int i = 0; i < desc->count && !found; ++i) {
            if (Lower(ValueName(id, desc->values[i])) == Lower(given->second.text)) {
                value = desc->values[i];
                found = true;
            }
        }
    }
    sdk.Free(desc);
    if (!found) found = ParseInteger(given->second.text, value);
    if (!found) return Fail(422, "not a value of " + PropertyName(id));
    std::lock_guard<std::mutex> work(feed.work);
    OrqResult result = sdk.SetPropertyData(feed.camera->Session(), id, value);
    if (result != ORQ_OK) {
        return Fail(StatusFor(result),
                    result == ORQ_ERROR ? PropertyName(id) + " is read-only"
                                        : "refused: " + std::string(ResultName(result)),
                    result);
    }
    // Answered once the camera has it; other pages hear of it, as the SDK tells only of changes
    // made elsewhere.
    if (auto failed = Drained(feed)) return *failed;
    std::string setting = SettingJson(feed, id);
    hub.Publish(static_cast<size_t>(feed.camera->Index()), "property",
                JsonObject({{"id", JsonNumber(id)},
                            {"name", JsonString(PropertyName(id))},
                            {"value", JsonNumber(value)},
                            {"valueName", JsonString(ValueName(id, value))}}));
    return Ok(setting);
}

Answer Server::ShootOne(Call& call) {
    Feed& feed = call.feed;
    std::lock_guard<std::mutex> work(feed.work);
    int before = feed.camera->Seen().shots;
    OrqResult result = sdk.Shoot(feed.camera->Session());
    if (result != ORQ_OK) return Fail(StatusFor(result), "shoot refused", result);
    if (auto failed = Waited(
            feed, [before](const Camera::Counts& c) { return c.shots > before; },
            options.timeoutMs))
        return *failed;
    std::vector<FileRecord> shots = feed.camera->TakeShots();
    if (shots.empty()) return Fail(502, "the camera reported no picture");
    const FileRecord& shot = shots.back();
    return Ok(FileJson(shot.id, shot.name, shot.size));
}

// Every camera at once, released together where the SDK can.
Answer Server::ShootAll(const Request&, Response&) {
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
    return Ok(JsonObject({{"shots", JsonArray(shots)}}));
}

Answer Server::Zoom(Call& call) {
    Feed& feed = call.feed;
    int zoom = 0;
    if (!ParseInteger(call.body["zoom"].text, zoom)) return Fail(400, "the body needs \"zoom\"");
    std::lock_guard<std::mutex> work(feed.work);
    int before = feed.camera->Seen().zoomCompleted;
    OrqResult result = sdk.SetZoom(feed.camera->Session(), zoom);
    if (result != ORQ_OK) return Fail(StatusFor(result), "zoom refused", result);
    if (auto failed = Waited(
            feed, [before](const Camera::Counts& c) { return c.zoomCompleted > before; },
            options.timeoutMs))
        return *failed;
    sdk.GetZoom(feed.camera->Session(), &zoom);
    return Ok(JsonObject({{"zoom", JsonNumber(zoom)}}));
}

Answer Server::Focus(Call& call) {
    Feed& feed = call.feed;
    int focus = 0;
    if (!ParseInteger(call.body["focus"].text, focus)) return Fail(400, "the body needs \"focus\"");
    std::lock_guard<std::mutex> work(feed.work);
    OrqResult result = sdk.SetFocus(feed.camera->Session(), focus);
    if (result != ORQ_OK) return Fail(StatusFor(result), "focus refused", result);
    if (auto failed = Drained(feed)) return *failed;
    sdk.GetFocus(feed.camera->Session(), &focus);
    return Ok(JsonObject({{"focus", JsonNumber(focus)}}));
}

Answer Server::Video(Call& call) {
    Feed& feed = call.feed;
    const std::string& action = call.body["action"].text;
    if (action != "start" && action != "stop") return Fail(400, "\"action\" is start or stop");
    if (sdk.IsVideoSupported(feed.camera->Session()) != 1)
        return Fail(409, "this model records no movies");
    std::lock_guard<std::mutex> work(feed.work);
    if (action == "start") {
        OrqResult result = sdk.StartVideo(feed.camera->Session());
        if (result != ORQ_OK) return Fail(409, "recording refused", result);
        hub.Publish(static_cast<size_t>(feed.camera->Index()), "video", "{\"recording\":true}");
        return Ok("{\"recording\":true}");
    }
    OrqFileInfo file{};
    OrqResult result = sdk.StopVideo(feed.camera->Session(), &file);
    if (result != ORQ_OK) return Fail(409, "stop refused", result);
    std::string json = JsonObject({{"recording", JsonBool(false)},
                                   {"id", JsonNumber(file.id)},
                                   {"name", JsonString(Utf8(file.name))},
                                   {"size", JsonNumber(file.size)}});
    hub.Publish(static_cast<size_t>(feed.camera->Index()), "video", json);
    return Ok(json);
}

}  // namespace serve
}  // namespace orqcam
