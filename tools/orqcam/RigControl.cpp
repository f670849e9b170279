// orqcam rig: a controller of a rig over the broker, and the collection of its shots from the
// nodes' file servers. Loads no SDK: the cameras are the nodes'.
#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "Rig.h"

namespace orqcam {
namespace rig {

namespace {

constexpr int kConnectWaitMs = 10000;
constexpr int kSettleWaitMs = 5000;

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at = text.find(separator); at != std::string::npos;
         at = text.find(separator, start)) {
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
    parts.push_back(text.substr(start));
    return parts;
}

std::string NewId(const char* prefix) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &utc);
    std::random_device random;
    return std::string(prefix) + stamp + "-" + std::to_string(random() % 100000);
}

std::string Milliseconds(long long micros) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(micros) / 1000.0);
    return text;
}

class Controller {
public:
    explicit Controller(const Options& options) : options(options) {}

    Outcome Run();

private:
    std::string Topic(const std::string& rest) const { return Prefix(options.rig) + rest; }
    void OnMessage(const std::string& topic, const std::string& payload);
    std::vector<std::string> OnlineNodes();
    void WarnClocks();
    // Waits until done() holds under the lock, or the bound passes; false on timeout.
    bool WaitFor(const std::function<bool()>& done, long long boundMs);

    Outcome List();
    Outcome Watch();
    Outcome Shoot();
    Outcome Adjust(const std::string& kind);
    Outcome Collect();

    const Options& options;
    Broker broker;
    std::mutex lock;
    std::condition_variable changed;
    std::map<std::string, Json> nodes;    // node -> state
    std::map<std::string, Json> cameras;  // "node/camera" -> record
    std::string current;                  // the command id whose answers are kept
    std::map<std::string, Json> reports;  // node -> report on current
    std::map<std::string, Json> shots;    // "node/camera" -> shot event of current
    bool watching = false;
    std::vector<std::string> watched;
};

void Controller::OnMessage(const std::string& topic, const std::string& payload) {
    const std::string prefix = Topic("");
    if (topic.rfind(prefix, 0) != 0) return;
    std::vector<std::string> parts = Split(topic.substr(prefix.size()), '/');
    // A level that is no name is nobody's folder or key.
    if (parts.empty() || !std::all_of(parts.begin(), parts.end(), ValidName)) return;
    Json message;
    bool parsed = ParseObject(payload, message);
    std::lock_guard<std::mutex> guard(lock);
    if (watching) {
        Say("%s %s\n", topic.c_str(), payload.c_str());
        watched.push_back(
            JsonObject({{"topic", JsonString(topic)}, {"payload", parsed ? payload : "null"}}));
    }
    if (parts[0] == "node" && parts.size() == 2) {
        if (parsed) {
            nodes[parts[1]] = message;
        } else {
            nodes.erase(parts[1]);
        }
    } else if (parts[0] == "camera" && parts.size() == 3) {
        if (parsed) {
            cameras[parts[1] + "/" + parts[2]] = message;
        } else {
            cameras.erase(parts[1] + "/" + parts[2]);
        }
    } else if (parts[0] == "report" && parts.size() == 3 && parsed && parts[2] == current) {
        reports[parts[1]] = message;
    } else if (parts[0] == "event" && parts.size() == 4 && parts[3] == "shot" && parsed &&
               TextOf(message, "shot") == current) {
        shots[parts[1] + "/" + parts[2]] = message;
    }
    changed.notify_all();
}

std::vector<std::string> Controller::OnlineNodes() {
    std::vector<std::string> online;
    for (const auto& [name, state] : nodes)
        if (FlagOf(state, "online")) online.push_back(name);
    return online;
}

void Controller::WarnClocks() {
    std::lock_guard<std::mutex> guard(lock);
    for (const auto& [name, state] : nodes) {
        if (!FlagOf(state, "online")) continue;
        if (!FlagOf(ObjectOf(state, "clock"), "synchronised")) {
            Warn(
                "orqcam rig: node %s's clock is not synchronised (no NTP or PTP daemon "
                "disciplines it): its cameras may fire off the moment; see docs/rig.md\n",
                name.c_str());
        }
    }
}

bool Controller::WaitFor(const std::function<bool()>& done, long long boundMs) {
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, std::chrono::milliseconds(std::max(0LL, boundMs)), done);
}

Outcome Controller::List() {
    std::vector<std::vector<std::string>> nodeRows, cameraRows;
    std::vector<std::string> nodeJson, cameraJson;
    bool anyOnline = false;
    {
        std::lock_guard<std::mutex> guard(lock);
        for (const auto& [name, state] : nodes) {
            bool online = FlagOf(state, "online");
            anyOnline = anyOnline || online;
            const Json clock = ObjectOf(state, "clock");
            nodeRows.push_back(
                {name, online ? "online" : "offline (" + TextOf(state, "reason") + ")",
                 std::to_string(NumberOf(state, "cameras")),
                 !online ? ""
                 : FlagOf(clock, "synchronised")
                     ? "synchronised, ±" + Milliseconds(NumberOf(clock, "estErrorUs")) + " ms"
                     : "NOT synchronised",
                 online ? TextOf(ObjectOf(state, "files"), "url") : ""});
            nodeJson.push_back(state.dump());
        }
        for (const auto& [key, record] : cameras) {
            cameraRows.push_back(
                {TextOf(record, "node"), TextOf(record, "camera"), TextOf(record, "model"),
                 TextOf(record, "serial"), FlagOf(record, "online") ? "yes" : "no",
                 TextOf(record, "battery"), std::to_string(NumberOf(record, "zoom"))});
            cameraJson.push_back(record.dump());
        }
    }
    PrintTable({"NODE", "STATE", "CAMERAS", "CLOCK", "FILES"}, nodeRows);
    Say("\n");
    PrintTable({"NODE", "CAMERA", "MODEL", "SERIAL", "ONLINE", "BATTERY", "ZOOM"}, cameraRows);
    WarnClocks();
    Outcome outcome;
    outcome.json = JsonObject({{"nodes", JsonArray(nodeJson)}, {"cameras", JsonArray(cameraJson)}});
    if (!anyOnline) {
        Outcome failed = Failure(kExitNoCamera, "no node of rig " + options.rig + " is online");
        outcome.exit = failed.exit;
    }
    return outcome;
}

Outcome Controller::Watch() {
    int seconds = 10;
    if (options.args.size() > 1 &&
        (!ParseInteger(options.args[1], seconds) || seconds < 0 || seconds > 86400))
        return Failure(kExitUsage, "rig watch takes seconds from 0 to 86400");
    {
        std::lock_guard<std::mutex> guard(lock);
        watching = true;
    }
    broker.Subscribe(Topic("#"));
    // Watching is the point: it ends when its time is up.
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    std::lock_guard<std::mutex> guard(lock);
    watching = false;
    Outcome outcome;
    outcome.json = JsonObject({{"messages", JsonArray(watched)}});
    return outcome;
}

Outcome Controller::Shoot() {
    const std::string id = options.shotId.empty() ? NewId("s") : options.shotId;
    if (!ValidName(id)) return Failure(kExitUsage, "--id takes a name of A-Z a-z 0-9 . _ -");
    std::vector<std::string> chosen(options.args.begin() + 1, options.args.end());
    std::set<std::string> expected;
    {
        std::lock_guard<std::mutex> guard(lock);
        current = id;
        std::vector<std::string> online = OnlineNodes();
        for (const std::string& name : chosen) {
            std::string nodeName = name.substr(0, name.find('/'));
            if (!nodes.count(nodeName) || !FlagOf(nodes[nodeName], "online"))
                return Failure(kExitNoCamera, "node " + nodeName + " is not online");
            const std::string camera =
                name.find('/') == std::string::npos ? "" : name.substr(name.find('/') + 1);
            if (!camera.empty() && !cameras.count(nodeName + "/" + camera))
                return Failure(kExitNoCamera, "node " + nodeName + " has no camera " + camera);
            expected.insert(nodeName);
        }
        if (chosen.empty()) expected.insert(online.begin(), online.end());
    }
    if (expected.empty())
        return Failure(kExitNoCamera, "no node of rig " + options.rig + " is online");
    WarnClocks();
    const long long at = UtcMicros() + static_cast<long long>(options.leadMs) * 1000;
    Json command = {{"v", kVersion}, {"id", id}, {"at", at}};
    command["cameras"] = chosen.empty() ? Json() : Json(chosen);
    if (!broker.Publish(Topic("cmd/fire"), command.dump(), false, kConnectWaitMs))
        return Failure(kExitBroker, "the broker did not take the fire command");
    const long long bound = options.leadMs + options.timeoutMs;
    auto gone = [this](const std::string& name) {
        return !nodes.count(name) || !FlagOf(nodes[name], "online");
    };
    // Every node answers or is lost; then every fired camera's picture is kept or failed.
    bool reported = WaitFor(
        [&] {
            return std::all_of(expected.begin(), expected.end(), [&](const std::string& name) {
                return reports.count(name) || gone(name);
            });
        },
        bound);
    bool kept = WaitFor(
        [&] {
            for (const auto& [name, report] : reports) {
                // A node that fired this id before sends no new picture.
                if (gone(name) || FlagOf(report, "duplicate")) continue;
                for (const Json& entry : ListOf(report, "cameras")) {
                    if (TextOf(entry, "status") == "fired" &&
                        !shots.count(name + "/" + TextOf(entry, "camera")))
                        return false;
                }
            }
            return true;
        },
        bound + options.timeoutMs);
    // The records of nodes that fired this id before, fetched outside the lock.
    std::map<std::string, Json> records;
    {
        std::lock_guard<std::mutex> guard(lock);
        for (const auto& [name, report] : reports)
            if (FlagOf(report, "duplicate")) records[name] = nodes[name];
    }
    for (auto& [name, record] : records) record = NodeRecord(record, id);

    std::lock_guard<std::mutex> guard(lock);
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> json;
    int exit = reported && kept ? kExitOk : kExitTimeout;
    long long earliest = 0, latest = 0;
    auto add = [&](const std::string& name, const std::string& camera, const std::string& status,
                   const Json& entry, const Json& shot) {
        bool fired = status == "fired";
        bool ok = fired && !TextOf(shot, "sha256").empty();
        if (!ok && exit == kExitOk) exit = kExitCameraError;
        if (fired) {
            long long sent = NumberOf(entry, "sent");
            earliest = earliest == 0 ? sent : std::min(earliest, sent);
            latest = std::max(latest, sent);
        }
        std::string reason = TextOf(shot, "reason", TextOf(entry, "result"));
        rows.push_back({name, camera, status, fired ? Milliseconds(NumberOf(entry, "lateUs")) : "",
                        ok ? TextOf(shot, "name") : reason});
        json.push_back(JsonObject({{"node", JsonString(name)},
                                   {"camera", JsonString(camera)},
                                   {"status", JsonString(status)},
                                   {"result", JsonString(TextOf(entry, "result"))},
                                   {"sent", JsonNumber(NumberOf(entry, "sent"))},
                                   {"lateUs", JsonNumber(NumberOf(entry, "lateUs"))},
                                   {"file", ok ? Json{{"name", TextOf(shot, "name")},
                                                      {"size", NumberOf(shot, "size")},
                                                      {"sha256", TextOf(shot, "sha256")},
                                                      {"path", TextOf(shot, "path")}}
                                                     .dump()
                                               : "null"},
                                   {"reason", ok ? "null" : JsonString(reason)}}));
    };
    for (const std::string& name : expected) {
        auto report = reports.find(name);
        if (report == reports.end()) {
            // Lost, or silent: its cameras as the broker last knew them.
            for (const auto& [key, record] : cameras) {
                if (TextOf(record, "node") != name) continue;
                add(name, TextOf(record, "camera"), gone(name) ? "missing" : "no answer",
                    Json{{"result", gone(name) ? "node offline" : "no report in time"}},
                    Json::object());
            }
            continue;
        }
        if (report->second.contains("error")) {
            Warn("orqcam rig: node %s refused the shot: %s\n", name.c_str(),
                 TextOf(report->second, "error").c_str());
            if (exit == kExitOk) exit = kExitCameraError;
            continue;
        }
        // A duplicate's pictures are those of the first time, in the node's record.
        const bool duplicate = FlagOf(report->second, "duplicate");
        std::map<std::string, Json> kept;
        for (const Json& taken : ListOf(records[name], "cameras"))
            kept.emplace(TextOf(taken, "camera"), taken);
        for (const Json& entry : ListOf(report->second, "cameras")) {
            std::string camera = TextOf(entry, "camera");
            auto shot = shots.find(name + "/" + camera);
            Json picture = shot == shots.end() ? Json::object() : shot->second;
            if (duplicate) {
                const Json taken = kept.count(camera) ? kept[camera] : Json::object();
                const Json files = ListOf(taken, "files");
                picture = !files.empty() && !TextOf(files[0], "sha256").empty()
                              ? files[0]
                              : Json{{"reason", TextOf(taken, "reason", "no record")}};
            }
            std::string status = TextOf(entry, "status");
            if (status == "fired" && TextOf(picture, "sha256").empty() && gone(name))
                status = "missing";
            add(name, camera, status, entry, picture);
        }
    }
    PrintTable({"NODE", "CAMERA", "RELEASE", "LATE MS", "PICTURE"}, rows);
    Say("shot %s: %zu cameras, release spread %s ms\n", id.c_str(), rows.size(),
        Milliseconds(latest - earliest).c_str());
    Outcome outcome;
    outcome.exit = exit;
    outcome.json = JsonObject({{"id", JsonString(id)},
                               {"at", JsonNumber(at)},
                               {"spreadUs", JsonNumber(latest - earliest)},
                               {"cameras", JsonArray(json)}});
    return outcome;
}

Outcome Controller::Adjust(const std::string& kind) {
    const std::string id = NewId("c");
    Json command = {{"v", kVersion}, {"id", id}, {"cameras", Json()}};
    if (kind == "set") {
        if (options.args.size() != 3) return Failure(kExitUsage, "usage: rig set NAME VALUE");
        command["setting"] = options.args[1];
        command["value"] = options.args[2];
    } else {
        if (options.args.size() != 2) return Failure(kExitUsage, "usage: rig zoom N|max");
        int step = 0;
        if (ParseInteger(options.args[1], step)) {
            command["zoom"] = step;
        } else {
            command["zoom"] = options.args[1];
        }
    }
    std::vector<std::string> expected;
    {
        std::lock_guard<std::mutex> guard(lock);
        current = id;
        expected = OnlineNodes();
    }
    if (expected.empty())
        return Failure(kExitNoCamera, "no node of rig " + options.rig + " is online");
    if (!broker.Publish(Topic("cmd/" + kind), command.dump(), false, kConnectWaitMs))
        return Failure(kExitBroker, "the broker did not take the command");
    bool answered = WaitFor(
        [&] {
            return std::all_of(expected.begin(), expected.end(), [&](const std::string& name) {
                return reports.count(name) || (nodes.count(name) && !FlagOf(nodes[name], "online"));
            });
        },
        options.timeoutMs + 1000);
    std::lock_guard<std::mutex> guard(lock);
    int exit = answered ? kExitOk : kExitTimeout;
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> json;
    for (const auto& [name, report] : reports) {
        if (report.contains("error")) {
            Warn("orqcam rig: node %s: %s\n", name.c_str(), TextOf(report, "error").c_str());
            if (exit == kExitOk) exit = kExitUsage;
        }
        for (const Json& entry : ListOf(report, "cameras")) {
            std::string result = TextOf(entry, "result");
            if (result != "ORQ_OK" && exit == kExitOk)
                exit = static_cast<int>(NumberOf(entry, "exit", kExitCameraError));
            std::string shown =
                kind == "set" ? TextOf(entry, "value") : std::to_string(NumberOf(entry, "zoom"));
            rows.push_back({name, TextOf(entry, "camera"), result,
                            result == "ORQ_OK" ? shown : TextOf(entry, "error")});
        }
        json.push_back(report.dump());
    }
    PrintTable({"NODE", "CAMERA", "RESULT", kind == "set" ? "VALUE" : "ZOOM"}, rows);
    Outcome outcome;
    outcome.exit = exit;
    outcome.json = JsonObject({{"id", JsonString(id)}, {"reports", JsonArray(json)}});
    return outcome;
}

Outcome Controller::Run() {
    const std::string verb = options.args[0];
    static const char* verbs[] = {"list", "watch", "shoot", "set", "zoom", "collect"};
    if (std::find(std::begin(verbs), std::end(verbs), verb) == std::end(verbs))
        return Failure(kExitUsage,
                       "rig takes list, watch, shoot, set, zoom or collect, not '" + verb + "'");
    if (!ValidName(options.rig))
        return Failure(kExitUsage, "--rig takes a name of A-Z a-z 0-9 . _ -");
    broker.OnMessage([this](const std::string& topic, const std::string& payload) {
        OnMessage(topic, payload);
    });
    std::random_device random;
    std::string client =
        "orq-ctl-" + std::to_string(getpid()) + "-" + std::to_string(random() % 1000000);
    Outcome connected = broker.Connect(options, client, "", "", kConnectWaitMs);
    if (connected.exit != kExitOk) return connected;
    std::vector<std::string> patterns = {Topic("node/+"), Topic("camera/+/+")};
    if (verb == "shoot" || verb == "set" || verb == "zoom") patterns.push_back(Topic("report/+/+"));
    if (verb == "shoot") patterns.push_back(Topic("event/+/+/shot"));
    if (!broker.Settle(patterns, options.rig, kSettleWaitMs)) {
        broker.Disconnect();
        return Failure(kExitBroker, "the broker did not answer our subscriptions");
    }
    Outcome outcome;
    if (verb == "list") outcome = List();
    if (verb == "watch") outcome = Watch();
    if (verb == "shoot") outcome = Shoot();
    if (verb == "set" || verb == "zoom") outcome = Adjust(verb);
    if (verb == "collect") outcome = Collect();
    broker.Disconnect();
    return outcome;
}

}  // namespace

Outcome Controller::Collect() {
    std::map<std::string, Json> nodeCopy, cameraCopy;
    {
        std::lock_guard<std::mutex> guard(lock);
        nodeCopy = nodes;
        cameraCopy = cameras;
    }
    return CollectShot(options, nodeCopy, cameraCopy);
}

}  // namespace rig

Outcome RigControl(const Options& options) {
    rig::Controller controller(options);
    return controller.Run();
}

}  // namespace orqcam
