// The rig view of orqcam serve: the rig's retained state and its latest shot, as the broker
// tells them, and a fire command for every camera. A controller like orqcam rig, but one that
// stays and follows every shot, whoever fired it.
#include "ServeRig.h"

#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <random>
#include <set>

#include "Rig.h"
#include "ServeReply.h"

namespace orqcam {
namespace serve {

namespace {

using rig::FlagOf;
using rig::Json;
using rig::NumberOf;
using rig::TextOf;

constexpr int kConnectWaitMs = 10000;
constexpr int kSettleWaitMs = 5000;
constexpr long long kDefaultLeadMs = 1000;

void Send(httplib::Response& response, int status, const Json& body) {
    Reply(response, status, body.dump());
}

class Follower : public RigView {
public:
    explicit Follower(const Options& options) : options(options) {}
    // The network thread stops before the state it writes goes.
    ~Follower() override { broker.Disconnect(); }
    Outcome Connect();
    void Routes(httplib::Server& http) override;

private:
    std::string Topic(const std::string& rest) const { return rig::Prefix(options.rig) + rest; }
    bool Online(const std::string& node) const {
        auto found = nodes.find(node);
        return found != nodes.end() && FlagOf(found->second, "online");
    }
    void OnMessage(const std::string& topic, const std::string& payload);
    // A fire command seen (ours or another controller's) starts a new last shot.
    void Began(const Json& command);
    Json LastShot() const;
    Json State() const;
    void Fire(const httplib::Request& request, httplib::Response& response);

    const Options& options;
    rig::Broker broker;
    mutable std::mutex lock;              // everything below
    std::map<std::string, Json> nodes;    // node -> state
    std::map<std::string, Json> cameras;  // "node/camera" -> record
    Json fire;                            // the last fire command, null before one
    std::set<std::string> expected;       // the nodes online and chosen when it was seen
    std::map<std::string, Json> reports;  // node -> report on it
    std::map<std::string, Json> shots;    // "node/camera" -> shot event of it
};

void Follower::OnMessage(const std::string& topic, const std::string& payload) {
    const std::string prefix = Topic("");
    if (topic.rfind(prefix, 0) != 0) return;
    std::vector<std::string> parts;
    for (size_t start = prefix.size();;) {
        size_t slash = topic.find('/', start);
        parts.push_back(topic.substr(start, slash - start));
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    for (const std::string& part : parts)
        if (!rig::ValidName(part)) return;
    Json message;
    const bool parsed = rig::ParseObject(payload, message);
    std::lock_guard<std::mutex> guard(lock);
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
    } else if (parts[0] == "cmd" && parts.size() == 2 && parts[1] == "fire" && parsed &&
               rig::ValidName(TextOf(message, "id")) &&
               (fire.is_null() || TextOf(fire, "id") != TextOf(message, "id"))) {
        Began(message);
    } else if (parsed && !fire.is_null() && parts[0] == "report" && parts.size() == 3 &&
               parts[2] == TextOf(fire, "id")) {
        reports[parts[1]] = message;
    } else if (parsed && !fire.is_null() && parts[0] == "event" && parts.size() == 4 &&
               parts[3] == "shot" && TextOf(message, "shot") == TextOf(fire, "id")) {
        shots[parts[1] + "/" + parts[2]] = message;
    }
}

void Follower::Began(const Json& command) {
    fire = command;
    reports.clear();
    shots.clear();
    expected.clear();
    auto chosen = command.find("cameras");
    const bool everyone = chosen == command.end() || !chosen->is_array() || chosen->empty();
    for (const auto& [name, state] : nodes) {
        if (!FlagOf(state, "online")) continue;
        bool named = everyone;
        for (const Json& entry : everyone ? Json::array() : *chosen) {
            const std::string text = entry.is_string() ? entry.get<std::string>() : "";
            named = named || text.substr(0, text.find('/')) == name;
        }
        if (named) expected.insert(name);
    }
}

Json Follower::LastShot() const {
    if (fire.is_null()) return nullptr;
    Json entries = Json::array();
    long long earliest = 0, latest = 0;
    bool pending = false, complete = true;
    bool duplicate = false;  // of the report at hand
    auto add = [&](const std::string& node, const std::string& camera, const std::string& status,
                   const Json& entry, const std::string& reason) {
        Json row = {{"node", node}, {"camera", camera}, {"status", status}};
        if (entry.contains("result")) row["result"] = entry["result"];
        if (status == "fired") {
            const long long sent = NumberOf(entry, "sent");
            row["sent"] = sent;
            row["lateUs"] = NumberOf(entry, "lateUs");
            earliest = earliest == 0 ? sent : std::min(earliest, sent);
            latest = std::max(latest, sent);
            auto shot = shots.find(node + "/" + camera);
            if (shot != shots.end() && !TextOf(shot->second, "sha256").empty()) {
                row["file"] = {{"name", TextOf(shot->second, "name")},
                               {"size", NumberOf(shot->second, "size")},
                               {"sha256", TextOf(shot->second, "sha256")},
                               {"path", TextOf(shot->second, "path")}};
            } else if (shot != shots.end()) {
                row["reason"] = TextOf(shot->second, "reason", "no picture");
                complete = false;
            } else if (!Online(node)) {
                row["status"] = "missing";
                row["reason"] = "node offline";
                complete = false;
            } else if (duplicate) {
                // The node fired this id before; no new picture comes, the first one stands.
                row["reason"] = "fired before under this id";
            } else {
                row["reason"] = "picture on its way";
                pending = true;
            }
        } else if (!reason.empty()) {
            row["reason"] = reason;
            complete = complete && status != "missing";
        }
        entries.push_back(row);
    };
    for (const std::string& node : expected) {
        auto report = reports.find(node);
        if (report == reports.end() || report->second.contains("error")) {
            const bool refused = report != reports.end();
            const bool gone = !Online(node);
            pending = pending || (!refused && !gone);
            for (const auto& [key, record] : cameras) {
                if (TextOf(record, "node") != node) continue;
                add(node, TextOf(record, "camera"),
                    refused ? "refused"
                    : gone  ? "missing"
                            : "waiting",
                    Json::object(),
                    refused ? TextOf(report->second, "error")
                    : gone  ? "node offline"
                            : "");
            }
            continue;
        }
        duplicate = FlagOf(report->second, "duplicate");
        auto listed = report->second.find("cameras");
        if (listed == report->second.end() || !listed->is_array()) continue;
        for (const Json& entry : *listed) {
            const std::string status = TextOf(entry, "status");
            add(node, TextOf(entry, "camera"), status, entry,
                status == "late" ? "late" : "failed: " + TextOf(entry, "result"));
        }
    }
    return {{"id", TextOf(fire, "id")}, {"at", NumberOf(fire, "at")},
            {"cameras", entries},       {"spreadUs", latest - earliest},
            {"pending", pending},       {"complete", complete && !pending}};
}

Json Follower::State() const {
    std::lock_guard<std::mutex> guard(lock);
    Json nodeList = Json::array(), cameraList = Json::array();
    for (const auto& [name, state] : nodes) nodeList.push_back(state);
    for (const auto& [key, record] : cameras) cameraList.push_back(record);
    return {{"v", rig::kVersion},
            {"rig", options.rig},
            {"nodes", nodeList},
            {"cameras", cameraList},
            {"last", LastShot()}};
}

void Follower::Fire(const httplib::Request& request, httplib::Response& response) {
    Json body;
    if (!rig::ParseObject(request.body.empty() ? "{}" : request.body, body))
        return Error(response, 400, "the body is not a JSON object");
    const long long leadMs = NumberOf(body, "leadMs", kDefaultLeadMs);
    if (leadMs < 0 || leadMs > 60000) return Error(response, 400, "leadMs is 0 to 60000");
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &utc);
    std::random_device random;
    const std::string id = std::string("s") + stamp + "-" + std::to_string(random() % 100000);
    const Json command = {{"v", rig::kVersion},
                          {"id", id},
                          {"at", rig::UtcMicros() + leadMs * 1000},
                          {"cameras", nullptr}};
    {
        std::lock_guard<std::mutex> guard(lock);
        bool any = false;
        for (const auto& [name, state] : nodes) any = any || FlagOf(state, "online");
        if (!any) return Error(response, 409, "no node of rig " + options.rig + " is online");
        Began(command);
    }
    if (!broker.Publish(Topic("cmd/fire"), command.dump(), false, kConnectWaitMs))
        return Error(response, 503, "the broker did not take the fire command");
    Send(response, 202, {{"id", id}, {"at", command["at"]}});
}

void Follower::Routes(httplib::Server& http) {
    http.Get("/api/rig", [this](const httplib::Request&, httplib::Response& response) {
        Send(response, 200, State());
    });
    http.Post("/api/rig/fire", [this](const httplib::Request& request,
                                      httplib::Response& response) { Fire(request, response); });
}

Outcome Follower::Connect() {
    if (!rig::ValidName(options.rig))
        return Failure(kExitUsage, "--rig takes a name of A-Z a-z 0-9 . _ -");
    broker.OnMessage([this](const std::string& topic, const std::string& payload) {
        OnMessage(topic, payload);
    });
    // After a lost connection the broker has forgotten us: subscribe again.
    broker.OnConnected([this] { broker.Subscribe(Topic("#")); });
    std::random_device random;
    const std::string client =
        "orq-serve-" + std::to_string(getpid()) + "-" + std::to_string(random() % 1000000);
    Outcome connected = broker.Connect(options, client, "", "", kConnectWaitMs);
    if (connected.exit != kExitOk) return connected;
    if (!broker.Settle({Topic("#")}, options.rig, kSettleWaitMs)) {
        broker.Disconnect();
        return Failure(kExitBroker, "the broker did not answer our subscriptions");
    }
    return Outcome{};
}

}  // namespace

std::unique_ptr<RigView> FollowRig(const Options& options, Outcome& failure) {
    auto follower = std::make_unique<Follower>(options);
    failure = follower->Connect();
    if (failure.exit != kExitOk) return nullptr;
    return follower;
}

}  // namespace serve
}  // namespace orqcam
