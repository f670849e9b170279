// Settings and lens: info, props, get, set, reset, zoom, focus, video.
#include "Verbs.h"

namespace orqcam {

namespace {

// Property ids and values are small; names are looked up over these ranges.
constexpr int kLastPropertyId = 255;
constexpr int kLowestValue = -1024;
constexpr int kHighestValue = 1024;

struct Property {
    int id = 0;
    int value = 0;
    bool readOnly = false;
    std::vector<int> offered;
};

OrqResult ReadProperty(Camera& camera, int id, Property& property) {
    property = Property{};
    property.id = id;
    OrqResult result = sdk.GetPropertyData(camera.Session(), id, &property.value);
    if (result != ORQ_OK) return result;
    OrqPropertyDesc* desc = nullptr;
    result = sdk.GetPropertyDesc(camera.Session(), id, &desc);
    if (result == ORQ_OK && desc) {
        property.readOnly = desc->readOnly != 0;
        if (desc->values && desc->count > 0)
            property.offered.assign(desc->values, desc->values + desc->count);
    }
    sdk.Free(desc);
    return result;
}

std::string PropertyJson(const Property& p) {
    std::vector<std::string> offered;
    for (int value : p.offered) {
        offered.push_back(JsonObject(
            {{"value", JsonNumber(value)}, {"name", JsonString(ValueName(p.id, value))}}));
    }
    return JsonObject({{"id", JsonNumber(p.id)},
                       {"name", JsonString(PropertyName(p.id))},
                       {"value", JsonNumber(p.value)},
                       {"valueName", JsonString(ValueName(p.id, p.value))},
                       {"readOnly", JsonBool(p.readOnly)},
                       {"offered", JsonArray(offered)}});
}

void PrintProperties(const std::vector<Property>& properties) {
    std::vector<std::vector<std::string>> rows;
    for (const Property& p : properties) {
        std::string offered;
        for (int value : p.offered)
            offered += (offered.empty() ? "" : ", ") + ValueName(p.id, value);
        if (p.readOnly) offered = "(read-only)";
        rows.push_back(
            {std::to_string(p.id), PropertyName(p.id), ValueName(p.id, p.value), offered});
    }
    PrintTable({"ID", "PROPERTY", "VALUE", "OFFERED"}, rows);
}

bool FindProperty(const std::string& text, int& id) {
    if (ParseInteger(text, id)) return !PropertyName(id).empty();
    for (int candidate = 0; candidate <= kLastPropertyId; ++candidate) {
        std::string name = PropertyName(candidate);
        if (!name.empty() && Lower(name) == Lower(text)) {
            id = candidate;
            return true;
        }
    }
    return false;
}

bool HasName(int id, int value) {
    OrqChar* name = nullptr;
    return sdk.GetPropertyValName(id, value, &name) == ORQ_OK;
}

// A value name first, where the property has value names (offered ones, then any the property
// knows), then a number. False when the text is neither.
bool MatchValue(const Property& property, const std::string& text, int& value) {
    for (int offered : property.offered) {
        if (HasName(property.id, offered) &&
            Lower(ValueName(property.id, offered)) == Lower(text)) {
            value = offered;
            return true;
        }
    }
    for (int candidate = kLowestValue; candidate <= kHighestValue; ++candidate) {
        if (HasName(property.id, candidate) &&
            Lower(ValueName(property.id, candidate)) == Lower(text)) {
            value = candidate;
            return true;
        }
    }
    return ParseInteger(text, value);
}

// Reads the property named on the command line, or says why not.
bool LookUp(Camera& camera, const std::string& text, Property& property, Outcome& failed) {
    int id = 0;
    if (!FindProperty(text, id)) {
        failed = Failure(kExitUsage, "unknown property '" + text + "' (see orqcam props)");
        return false;
    }
    OrqResult result = ReadProperty(camera, id, property);
    if (result == ORQ_UNKNOWN_PROPERTY) {
        failed = Failure(kExitRefused, camera.Name() + " has no " + PropertyName(id), result);
        return false;
    }
    if (result != ORQ_OK) {
        failed = FailureOf(result, "cannot read " + PropertyName(id));
        return false;
    }
    return true;
}

// Waits for the camera to take what was queued; the outcome when it did not.
bool Drained(Camera& camera, const Options& options, const std::string& what, Outcome& failed) {
    bool timedOut = false;
    OrqResult result = camera.Drain(options.timeoutMs, &timedOut);
    if (timedOut) {
        failed = Failure(kExitTimeout, what + ": the camera did not answer in time");
        return false;
    }
    if (result != ORQ_OK) {
        failed = FailureOf(result, what);
        return false;
    }
    return true;
}

}  // namespace

std::string PropertyName(int id) {
    OrqChar* name = nullptr;
    return sdk.GetPropertyName(id, &name) == ORQ_OK ? Utf8(name) : "";
}

std::string ValueName(int id, int value) {
    OrqChar* name = nullptr;
    return sdk.GetPropertyValName(id, value, &name) == ORQ_OK ? Utf8(name) : std::to_string(value);
}

Outcome Info(const Options&, Camera& camera) {
    const OrqCameraInfo& info = camera.Info();
    int maxZoom = 0, zoom = 0, focus = 0;
    OrqResult result = sdk.GetMaximumZoom(camera.Session(), &maxZoom);
    if (result == ORQ_OK) result = sdk.GetZoom(camera.Session(), &zoom);
    if (result == ORQ_OK) result = sdk.GetFocus(camera.Session(), &focus);
    if (result != ORQ_OK) return FailureOf(result, "cannot read the camera");
    bool video = sdk.IsVideoSupported(camera.Session()) != 0;
    std::vector<std::pair<std::string, std::string>> fields = {
        {"name", Utf8(info.name)},        {"serial", Utf8(info.serial)},
        {"module", Utf8(info.version)},   {"path", Utf8(info.path)},
        {"zoom", std::to_string(zoom)},   {"maxZoom", std::to_string(maxZoom)},
        {"focus", std::to_string(focus)}, {"video", video ? "yes" : "no"},
    };
    std::vector<std::vector<std::string>> rows;
    for (const auto& [key, value] : fields) rows.push_back({key, value});
    PrintTable({"FIELD", "VALUE"}, rows);
    Outcome outcome;
    outcome.json = JsonObject({{"index", JsonNumber(camera.Index())},
                               {"id", JsonNumber(info.id)},
                               {"name", JsonString(Utf8(info.name))},
                               {"serial", JsonString(Utf8(info.serial))},
                               {"module", JsonString(Utf8(info.version))},
                               {"path", JsonString(Utf8(info.path))},
                               {"zoom", JsonNumber(zoom)},
                               {"maxZoom", JsonNumber(maxZoom)},
                               {"focus", JsonNumber(focus)},
                               {"video", JsonBool(video)}});
    return outcome;
}

Outcome Props(const Options&, Camera& camera) {
    int* ids = nullptr;
    int count = 0;
    OrqResult result = sdk.GetPropertyList(camera.Session(), &ids, &count);
    if (result != ORQ_OK) return FailureOf(result, "cannot list the properties");
    std::vector<int> list(ids, ids + count);
    sdk.Free(ids);
    std::vector<Property> properties;
    std::vector<std::string> json;
    for (int id : list) {
        Property property;
        result = ReadProperty(camera, id, property);
        // A property hidden since the list was made is skipped; a dead camera is not.
        if (result == ORQ_UNKNOWN_PROPERTY) continue;
        if (result != ORQ_OK) return FailureOf(result, "cannot read " + PropertyName(id));
        properties.push_back(property);
        json.push_back(PropertyJson(property));
    }
    PrintProperties(properties);
    Outcome outcome;
    outcome.json = JsonArray(json);
    return outcome;
}

Outcome Get(const Options& options, Camera& camera) {
    Property property;
    Outcome failed;
    if (!LookUp(camera, options.args[0], property, failed)) return failed;
    PrintProperties({property});
    Outcome outcome;
    outcome.json = PropertyJson(property);
    return outcome;
}

Outcome Set(const Options& options, Camera& camera) {
    Property property;
    Outcome failed;
    if (!LookUp(camera, options.args[0], property, failed)) return failed;
    const std::string& text = options.args[1];
    std::string name = PropertyName(property.id);
    int value = 0;
    if (!MatchValue(property, text, value)) {
        std::string offered;
        for (int v : property.offered)
            offered += (offered.empty() ? "" : ", ") + ValueName(property.id, v);
        return Failure(kExitUsage, name + " has no value '" + text + "'" +
                                       (offered.empty() ? "" : "; on offer: " + offered));
    }
    if (property.readOnly) return Failure(kExitRefused, name + " is read-only", ORQ_ERROR);
    OrqResult result = sdk.SetPropertyData(camera.Session(), property.id, value);
    if (result != ORQ_OK) {
        return FailureOf(result,
                         "the camera refused " + name + " = " + ValueName(property.id, value));
    }
    // The SDK answers before the camera has the value: wait for the write to go through, then
    // read back what the camera holds.
    if (!Drained(camera, options, "setting " + name, failed)) return failed;
    Property now;
    result = ReadProperty(camera, property.id, now);
    if (result != ORQ_OK) return FailureOf(result, "cannot read " + name + " back");
    if (now.value != value) {
        return Failure(kExitCameraError, name + " did not land: the camera holds " +
                                             ValueName(property.id, now.value));
    }
    PrintProperties({now});
    Outcome outcome;
    outcome.json = PropertyJson(now);
    return outcome;
}

Outcome Reset(const Options& options, Camera& camera) {
    OrqResult result = sdk.ResetCamera(camera.Session());
    if (result != ORQ_OK) return FailureOf(result, "reset refused");
    Outcome failed;
    if (!Drained(camera, options, "reset", failed)) return failed;
    Say("reset done\n");
    Outcome outcome;
    outcome.json = JsonObject({{"reset", JsonBool(true)}});
    return outcome;
}

Outcome Zoom(const Options& options, Camera& camera) {
    int maximum = 0, zoom = 0;
    OrqResult result = sdk.GetMaximumZoom(camera.Session(), &maximum);
    if (result != ORQ_OK) return FailureOf(result, "cannot read the zoom range");
    if (!options.args.empty()) {
        const std::string& text = options.args[0];
        int target = 0;
        if (Lower(text) == "max") {
            target = maximum;
        } else if (!ParseInteger(text, target) || target < 0 || target > maximum) {
            return Failure(kExitUsage, "zoom takes a step from 0 to " + std::to_string(maximum) +
                                           " or max, not '" + text + "'");
        }
        int before = camera.Seen().zoomCompleted;
        result = sdk.SetZoom(camera.Session(), target);
        if (result != ORQ_OK) return FailureOf(result, "zoom refused");
        bool timedOut = false;
        result = camera.WaitUntil(
            [before](const Camera::Counts& now) { return now.zoomCompleted > before; },
            options.timeoutMs, &timedOut);
        if (timedOut) return Failure(kExitTimeout, "the zoom did not finish in time");
        if (result != ORQ_OK) return FailureOf(result, "zoom failed");
    }
    result = sdk.GetZoom(camera.Session(), &zoom);
    if (result != ORQ_OK) return FailureOf(result, "cannot read the zoom");
    Say("zoom %d of %d\n", zoom, maximum);
    Outcome outcome;
    outcome.json = JsonObject({{"zoom", JsonNumber(zoom)}, {"maxZoom", JsonNumber(maximum)}});
    return outcome;
}

Outcome Focus(const Options& options, Camera& camera) {
    const auto& args = options.args;
    OrqResult result = ORQ_OK;
    if (args.size() == 2 && args[0] != "shift") {
        return Failure(kExitUsage, "usage: orqcam focus [N|shift D]");
    }
    if (!args.empty()) {
        const std::string& text = args.size() == 2 ? args[1] : args[0];
        int number = 0;
        if (args.size() == 1 && args[0] == "shift") {
            return Failure(kExitUsage, "focus shift needs a number of steps");
        }
        if (!ParseInteger(text, number)) {
            return Failure(kExitUsage, "focus takes a number, not '" + text + "'");
        }
        result = args.size() == 2 ? sdk.FocusShift(camera.Session(), number)
                                  : sdk.SetFocus(camera.Session(), number);
        if (result != ORQ_OK) return FailureOf(result, "focus refused");
        Outcome failed;
        if (!Drained(camera, options, "focus", failed)) return failed;
    }
    int focus = 0;
    result = sdk.GetFocus(camera.Session(), &focus);
    if (result != ORQ_OK) return FailureOf(result, "cannot read the focus");
    Say("focus %d%s\n", focus, focus == ORQ_FOCUS_INFINITY ? " (infinity)" : "");
    Outcome outcome;
    outcome.json = JsonObject({{"focus", JsonNumber(focus)}});
    return outcome;
}

Outcome Video(const Options& options, Camera& camera) {
    const std::string& action = options.args[0];
    if (action != "start" && action != "stop") {
        return Failure(kExitUsage, "video takes start or stop, not '" + action + "'");
    }
    if (!sdk.IsVideoSupported(camera.Session())) {
        return Failure(kExitRefused, camera.Name() + " records no video");
    }
    Outcome outcome;
    if (action == "start") {
        OrqResult result = sdk.StartVideo(camera.Session());
        if (result != ORQ_OK) return FailureOf(result, "video start failed");
        Say("recording\n");
        outcome.json = JsonObject({{"recording", JsonBool(true)}});
        return outcome;
    }
    OrqFileInfo file{};
    OrqResult result = sdk.StopVideo(camera.Session(), &file);
    if (result != ORQ_OK) return FailureOf(result, "video stop failed");
    Say("stopped: %s (id %d, %u bytes)\n", Utf8(file.name).c_str(), file.id, file.size);
    outcome.json = JsonObject({{"recording", JsonBool(false)},
                               {"file", JsonObject({{"id", JsonNumber(file.id)},
                                                    {"name", JsonString(Utf8(file.name))},
                                                    {"size", JsonNumber(file.size)}})}});
    return outcome;
}

}  // namespace orqcam
