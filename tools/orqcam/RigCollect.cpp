// orqcam rig collect: one shot's pictures from every node into D/<shot>/ with its manifest. A
// file already there with the size and SHA-256 its node gives is never fetched again.
#include <httplib.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>

#include "Rig.h"

namespace orqcam {
namespace rig {

namespace {

constexpr time_t kConnectSeconds = 5;
constexpr time_t kReadSeconds = 30;
constexpr uint64_t kLargestFile = 1ULL << 32;

struct Tally {
    int fetched = 0;
    int kept = 0;  // already there and verified
    int failed = 0;
};

// The node's file server, split into what httplib takes.
bool SplitUrl(const std::string& url, std::string& base) {
    if (url.rfind("http://", 0) != 0) return false;
    base = url;
    while (!base.empty() && base.back() == '/') base.pop_back();
    return base.size() > 7;
}

// Fetches one file into place, verified; the reason when it could not.
std::string Fetch(httplib::Client& client, const std::string& token, const std::string& remote,
                  const std::string& local, uint64_t size, const std::string& sha) {
    const std::string part = local + ".part";
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    if (!out) return "cannot write " + part;
    uint64_t received = 0;
    httplib::Headers headers = {{"Authorization", "Bearer " + token}};
    auto answer = client.Get(remote, headers, [&](const char* data, size_t length) {
        received += length;
        if (received > size || received > kLargestFile) return false;
        out.write(data, static_cast<std::streamsize>(length));
        return static_cast<bool>(out);
    });
    out.close();
    std::string why;
    if (!answer) {
        why = "the node did not answer: " + httplib::to_string(answer.error());
    } else if (answer->status != 200) {
        why = "the node answered " + std::to_string(answer->status);
    } else {
        uint64_t written = 0;
        std::string got = FileSha256(part, &written);
        if (written != size || got != sha) {
            why = "the bytes do not match the node's SHA-256";
        } else if (std::rename(part.c_str(), local.c_str()) != 0) {
            why = "cannot rename into " + local;
        }
    }
    if (!why.empty()) std::remove(part.c_str());
    return why;
}

}  // namespace

Json NodeRecord(const Json& state, const std::string& shot) {
    std::string base;
    if (!ValidName(shot) || !SplitUrl(TextOf(ObjectOf(state, "files"), "url"), base))
        return Json::object();
    httplib::Client client(base);
    client.set_connection_timeout(kConnectSeconds, 0);
    client.set_read_timeout(5, 0);
    auto answer = client.Get(
        "/api/rig/shots/" + shot,
        httplib::Headers{{"Authorization", "Bearer " + TextOf(ObjectOf(state, "files"), "token")}});
    Json record;
    if (!answer || answer->status != 200 || !ParseObject(answer->body, record))
        return Json::object();
    return record;
}

Outcome CollectShot(const Options& options, const std::map<std::string, Json>& nodes,
                    const std::map<std::string, Json>& cameras) {
    if (options.args.size() != 2 || options.dir.empty())
        return Failure(kExitUsage, "usage: rig collect SHOT --dir D");
    const std::string shot = options.args[1];
    if (!ValidName(shot)) return Failure(kExitUsage, "a shot is named by A-Z a-z 0-9 . _ -");
    std::string root = options.dir;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    const std::string folder = root + "/" + shot;
    if (!MakeFolders(folder)) return Failure(kExitUsage, "cannot make " + folder);

    Json entries = Json::array();
    Tally tally;
    long long at = 0;
    bool complete = true;
    std::set<std::string> listed;  // "node/camera"
    auto missing = [&](const std::string& node, const std::string& camera, const Json& record,
                       const std::string& reason) {
        if (listed.count(node + "/" + camera)) return;
        listed.insert(node + "/" + camera);
        entries.push_back({{"node", node},
                           {"camera", camera},
                           {"serial", TextOf(record, "serial")},
                           {"model", TextOf(record, "model")},
                           {"files", Json::array()},
                           {"reason", reason}});
    };

    for (const auto& [node, state] : nodes) {
        // The node's name becomes a folder: only a name, never a path.
        if (!ValidName(node)) continue;
        const bool online = FlagOf(state, "online");
        Json record;
        std::string why;
        std::string base;
        const Json files = ObjectOf(state, "files");
        const std::string token = TextOf(files, "token");
        std::unique_ptr<httplib::Client> client;
        if (!online) {
            why = "node offline";
        } else if (!SplitUrl(TextOf(files, "url"), base)) {
            why = "the node gives no file server";
        } else {
            client = std::make_unique<httplib::Client>(base);
            client->set_connection_timeout(kConnectSeconds, 0);
            client->set_read_timeout(kReadSeconds, 0);
            auto answer = client->Get("/api/rig/shots/" + shot,
                                      httplib::Headers{{"Authorization", "Bearer " + token}});
            if (!answer) {
                why = "the node's file server did not answer";
            } else if (answer->status == 404) {
                why = "no record";
            } else if (answer->status != 200 || !ParseObject(answer->body, record)) {
                why = "the node's record is unreadable (" + std::to_string(answer->status) + ")";
            }
        }
        if (!why.empty()) {
            // Every camera the broker knows of this node stands with the reason.
            if (why != "no record") complete = false;
            for (const auto& [key, camera] : cameras)
                if (TextOf(camera, "node") == node)
                    missing(node, TextOf(camera, "camera"), camera, why);
            continue;
        }
        at = NumberOf(record, "at", at);
        for (const Json& taken : ListOf(record, "cameras")) {
            const std::string camera = TextOf(taken, "camera");
            if (!ValidName(camera) || listed.count(node + "/" + camera)) continue;
            listed.insert(node + "/" + camera);
            const std::string status = TextOf(taken, "status");
            Json entry = {{"node", node},
                          {"camera", camera},
                          {"serial", TextOf(taken, "serial")},
                          {"model", TextOf(taken, "model")},
                          {"settings", ObjectOf(taken, "settings")},
                          {"release",
                           {{"status", status},
                            {"result", TextOf(taken, "result")},
                            {"sent", NumberOf(taken, "sent")},
                            {"lateUs", NumberOf(taken, "lateUs")}}},
                          {"files", Json::array()}};
            auto fileList = taken.find("files");
            if (fileList == taken.end() || !fileList->is_array()) {
                entry["reason"] = "pending on the node";
                complete = false;
            } else if (fileList->empty()) {
                entry["reason"] = TextOf(taken, "reason", status);
                if (status == "fired") complete = false;
            }
            for (const Json& file : ListOf(taken, "files")) {
                const std::string name = TextOf(file, "name");
                const std::string sha = TextOf(file, "sha256");
                const long long size = NumberOf(file, "size", -1);
                if (!ValidName(name) || sha.size() != 64 || size < 0) {
                    entry["reason"] = "the node's record of a file is unreadable";
                    complete = false;
                    continue;
                }
                const std::string relative = node + "/" + camera + "/" + name;
                const std::string local = folder + "/" + relative;
                uint64_t onDisk = 0;
                std::string why2;
                if (FileSha256(local, &onDisk) == sha && onDisk == static_cast<uint64_t>(size)) {
                    ++tally.kept;
                } else if (!MakeFolders(folder + "/" + node + "/" + camera)) {
                    why2 = "cannot make the folder";
                } else {
                    why2 = Fetch(*client, token,
                                 "/api/rig/shots/" + shot + "/" + node + "/" + camera + "/" + name,
                                 local, static_cast<uint64_t>(size), sha);
                    if (why2.empty()) ++tally.fetched;
                }
                if (!why2.empty()) {
                    ++tally.failed;
                    complete = false;
                    entry["reason"] = "download failed: " + why2;
                    Warn("orqcam rig: %s from %s: %s\n", relative.c_str(), node.c_str(),
                         why2.c_str());
                    continue;
                }
                entry["files"].push_back(
                    {{"name", name}, {"path", relative}, {"size", size}, {"sha256", sha}});
            }
            entries.push_back(entry);
        }
        // Cameras of this node that the shot did not involve.
        for (const auto& [key, camera] : cameras)
            if (TextOf(camera, "node") == node)
                missing(node, TextOf(camera, "camera"), camera, "not chosen");
    }

    Json manifest = {{"v", kVersion},     {"rig", options.rig},   {"shot", shot},
                     {"at", at},          {"complete", complete}, {"collected", UtcMicros()},
                     {"cameras", entries}};
    if (!WriteAtomically(folder + "/manifest.json", manifest.dump(1) + "\n"))
        return Failure(kExitCameraError, "cannot write " + folder + "/manifest.json");
    Say("%s: %d fetched, %d already there, %d failed; %zu cameras, %s\n", folder.c_str(),
        tally.fetched, tally.kept, tally.failed, entries.size(),
        complete ? "complete" : "INCOMPLETE");
    Outcome outcome;
    outcome.exit = complete ? kExitOk : kExitCameraError;
    outcome.json =
        Json{{"shot", shot},        {"folder", folder},       {"fetched", tally.fetched},
             {"kept", tally.kept},  {"failed", tally.failed}, {"cameras", entries.size()},
             {"complete", complete}}
            .dump();
    return outcome;
}

}  // namespace rig
}  // namespace orqcam
