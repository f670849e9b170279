// orqcam rig collect: one shot's pictures from every node into D with its manifest, laid out as
// a set (D/<shot>/<node>_<camera>.jpg) or for reconstruction tools (D/rig/<NNN>/<shot>.jpg, one
// folder per camera). Each JPEG gets the Exif identity its camera left out. A file already there
// and verified is never fetched again.
#include <httplib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "Rig.h"
#include "exif/JpegExif.h"

namespace orqcam {
namespace rig {

namespace {

constexpr time_t kConnectSeconds = 5;
constexpr time_t kReadSeconds = 30;
constexpr uint64_t kLargestFile = 1ULL << 32;
constexpr int kManifestVersion = 2;

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

// Fetches one file into part, verified against the node's size and SHA-256; the reason when it
// could not.
std::string Fetch(httplib::Client& client, const std::string& token, const std::string& remote,
                  const std::string& part, uint64_t size, const std::string& sha) {
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
        if (written != size || got != sha) why = "the bytes do not match the node's SHA-256";
    }
    if (!why.empty()) std::remove(part.c_str());
    return why;
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// ".jpg" of "IMG_0100.JPG"; "" without one.
std::string Extension(const std::string& name) {
    const size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? "" : Lower(name.substr(dot));
}

bool IsJpeg(const std::string& name) {
    const std::string extension = Extension(name);
    return extension == ".jpg" || extension == ".jpeg";
}

// The Exif a camera's pictures get from its node's record of the shot.
orq::exif::Identity IdentityOf(const Json& taken, const Json& entry) {
    orq::exif::Identity identity;
    identity.make = TextOf(taken, "make");
    identity.model = TextOf(entry, "model");
    identity.serial = TextOf(entry, "serial");
    if (TextOf(taken, "status") == "fired") identity.timeUs = NumberOf(taken, "sent");
    auto focal = taken.find("focalLengthMm");
    if (focal != taken.end() && focal->is_number() && focal->get<double>() > 0 &&
        focal->get<double>() < 100000)
        identity.focalHundredths = static_cast<uint32_t>(std::lround(focal->get<double>() * 100));
    const long long focal35 = NumberOf(taken, "focalLength35mm");
    if (focal35 > 0 && focal35 <= 65535) identity.focal35mm = static_cast<uint16_t>(focal35);
    return identity;
}

// The picture at part, stamped where it is a JPEG, renamed to local; the file's manifest entry
// (without name and path), or the reason it could not be placed.
std::string Place(const std::string& part, const std::string& local, const std::string& name,
                  const orq::exif::Identity& identity, Json& file) {
    std::string unstamped;
    if (!IsJpeg(name)) {
    } else if (file["size"].get<long long>() > static_cast<long long>(orq::exif::kLargestJpeg)) {
        unstamped = "larger than a picture is read";
    } else {
        std::ifstream in(part, std::ios::binary);
        std::vector<uint8_t> bytes(static_cast<size_t>(file["size"].get<long long>()));
        in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!in) return "cannot read " + part;
        in.close();
        orq::exif::Stamped stamped = orq::exif::Stamp(bytes.data(), bytes.size(), identity);
        if (!stamped.ok) {
            unstamped = stamped.why;
        } else if (stamped.changed) {
            std::ofstream out(part, std::ios::binary | std::ios::trunc);
            out.write(reinterpret_cast<const char*>(stamped.bytes.data()),
                      static_cast<std::streamsize>(stamped.bytes.size()));
            out.close();
            if (!out) return "cannot write " + part;
        }
    }
    if (std::rename(part.c_str(), local.c_str()) != 0) return "cannot rename into " + local;
    uint64_t size = 0;
    file["sha256"] = FileSha256(local, &size);
    file["size"] = size;
    if (!unstamped.empty()) {
        file["exif"] = unstamped;
        Warn("orqcam rig: %s left without Exif: %s\n", local.c_str(), unstamped.c_str());
    }
    return "";
}

// What an earlier collect verified: its manifest and the record it keeps while it runs, by path.
std::map<std::string, Json> Verified(const std::string& manifest, const std::string& progress) {
    std::map<std::string, Json> known;
    auto read = [](const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        Json object;
        return ParseObject(text.str(), object) ? object : Json::object();
    };
    for (const Json& camera : ListOf(read(manifest), "cameras"))
        for (const Json& file : ListOf(camera, "files"))
            if (!TextOf(file, "path").empty()) known[TextOf(file, "path")] = file;
    const Json during = read(progress);
    for (auto item = during.begin(); item != during.end(); ++item)
        if (item->is_object()) known[item.key()] = *item;
    return known;
}

// A camera of the set: its manifest entry, and its node's record where it has one.
struct Member {
    std::string node, camera;
    Json entry, taken;
    bool fetch = false;  // its files are to be fetched
};

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
        return Failure(kExitUsage, "usage: rig collect SHOT --dir D [--layout set|rig]");
    const std::string shot = options.args[1];
    if (!ValidName(shot)) return Failure(kExitUsage, "a shot is named by A-Z a-z 0-9 . _ -");
    const std::string layout = options.layout.empty() ? "set" : options.layout;
    if (layout != "set" && layout != "rig")
        return Failure(kExitUsage, "--layout takes set or rig, not '" + layout + "'");
    const bool rigLayout = layout == "rig";
    std::string root = options.dir;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    const std::string manifestPath =
        rigLayout ? root + "/manifests/" + shot + ".json" : root + "/" + shot + "/manifest.json";
    const std::string progressPath = manifestPath + ".verified";

    // The nodes' records first: nothing is written before the rig map is known to be sound.
    std::vector<Member> members;
    std::set<std::string> listed;  // "node/camera"
    std::map<std::string, std::unique_ptr<httplib::Client>> clients;
    std::map<std::string, std::string> tokens;
    long long at = 0;
    bool complete = true;
    auto missing = [&](const std::string& node, const std::string& camera, const Json& record,
                       const std::string& reason) {
        if (!listed.insert(node + "/" + camera).second) return;
        Member member;
        member.node = node;
        member.camera = camera;
        member.entry = {{"node", node},
                        {"camera", camera},
                        {"serial", TextOf(record, "serial")},
                        {"model", TextOf(record, "model")},
                        {"files", Json::array()},
                        {"reason", reason}};
        members.push_back(std::move(member));
    };
    for (const auto& [node, state] : nodes) {
        // The node's name becomes part of a file name: only a name, never a path.
        if (!ValidName(node)) continue;
        Json record;
        std::string why, base;
        const Json files = ObjectOf(state, "files");
        std::unique_ptr<httplib::Client> client;
        if (!FlagOf(state, "online")) {
            why = "node offline";
        } else if (!SplitUrl(TextOf(files, "url"), base)) {
            why = "the node gives no file server";
        } else {
            client = std::make_unique<httplib::Client>(base);
            client->set_connection_timeout(kConnectSeconds, 0);
            client->set_read_timeout(kReadSeconds, 0);
            auto answer = client->Get(
                "/api/rig/shots/" + shot,
                httplib::Headers{{"Authorization", "Bearer " + TextOf(files, "token")}});
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
        clients[node] = std::move(client);
        tokens[node] = TextOf(files, "token");
        at = NumberOf(record, "at", at);
        for (const Json& taken : ListOf(record, "cameras")) {
            const std::string camera = TextOf(taken, "camera");
            if (!ValidName(camera) || !listed.insert(node + "/" + camera).second) continue;
            const std::string status = TextOf(taken, "status");
            auto number = [&](const char* key) {
                auto found = taken.find(key);
                return found != taken.end() && found->is_number() ? *found : Json();
            };
            Member member;
            member.node = node;
            member.camera = camera;
            member.taken = taken;
            member.entry = {
                {"node", node},
                {"camera", camera},
                {"serial", TextOf(taken, "serial")},
                {"model", TextOf(taken, "model")},
                {"releasedUs", status == "fired" ? Json(NumberOf(taken, "sent")) : Json()},
                {"zoom", number("zoom")},
                {"focalLengthMm", number("focalLengthMm")},
                {"focalLength35mm", number("focalLength35mm")},
                {"settings", ObjectOf(taken, "settings")},
                {"release",
                 {{"status", status},
                  {"result", TextOf(taken, "result")},
                  {"sent", NumberOf(taken, "sent")},
                  {"lateUs", NumberOf(taken, "lateUs")}}},
                {"files", Json::array()}};
            auto fileList = taken.find("files");
            if (fileList == taken.end() || !fileList->is_array()) {
                member.entry["reason"] = "pending on the node";
                complete = false;
            } else if (fileList->empty()) {
                member.entry["reason"] = TextOf(taken, "reason", status);
                if (status == "fired") complete = false;
            }
            member.fetch = true;
            members.push_back(std::move(member));
        }
        // Cameras of this node that the shot did not involve.
        for (const auto& [key, camera] : cameras)
            if (TextOf(camera, "node") == node)
                missing(node, TextOf(camera, "camera"), camera, "not chosen");
    }
    std::sort(members.begin(), members.end(), [](const Member& a, const Member& b) {
        return std::tie(a.node, a.camera) < std::tie(b.node, b.camera);
    });

    // Folder numbers: a camera keeps its number for good, a new one is appended.
    RigMap map;
    if (rigLayout) {
        std::string error;
        if (!ReadRigMap(root + "/rig-map.txt", map, error)) return Failure(kExitUsage, error);
    }
    std::map<std::string, std::string> holders;  // serial -> "node/camera" of this set
    for (Member& member : members) {
        const std::string serial = TextOf(member.entry, "serial");
        const bool usable =
            !serial.empty() && std::none_of(serial.begin(), serial.end(), [](char c) {
                return static_cast<unsigned char>(c) <= ' ' || c == '#';
            });
        // A camera without a serial is known by its node and name, which no other one has.
        const std::string key = usable ? serial : member.node + "_" + member.camera;
        const std::string holder = member.node + "/" + member.camera;
        if (!rigLayout) {
            member.entry["rig"] = nullptr;
        } else if (!holders.emplace(key, holder).second) {
            // Two cameras claiming one serial would write into one folder: the second waits.
            member.entry["rig"] = nullptr;
            member.entry["reason"] = "its serial is " + holders[key] + "'s too";
            member.fetch = false;
            complete = false;
        } else {
            member.entry["rig"] = RigFolderOf(map, key);
        }
    }
    const std::string folder = rigLayout ? root + "/rig" : root + "/" + shot;
    if (!MakeFolders(folder) || !MakeFolders(manifestPath.substr(0, manifestPath.rfind('/'))))
        return Failure(kExitUsage, "cannot make " + folder);
    if (rigLayout && !SaveRigMap(map)) return Failure(kExitCameraError, "cannot write " + map.path);

    std::map<std::string, Json> known = Verified(manifestPath, progressPath);
    Json progress = Json::object();
    Tally tally;
    for (Member& member : members) {
        if (!member.fetch) continue;
        const std::string& node = member.node;
        const std::string& camera = member.camera;
        const orq::exif::Identity identity = IdentityOf(member.taken, member.entry);
        int count = 0;
        for (const Json& file : ListOf(member.taken, "files")) {
            const std::string name = TextOf(file, "name");
            const std::string sha = TextOf(file, "sha256");
            const long long size = NumberOf(file, "size", -1);
            if (!ValidName(name) || sha.size() != 64 || size < 0) {
                member.entry["reason"] = "the node's record of a file is unreadable";
                complete = false;
                continue;
            }
            // The second and later files of a camera in one shot: -2, -3, ...
            const std::string suffix = ++count > 1 ? "-" + std::to_string(count) : "";
            const std::string relative =
                rigLayout
                    ? "rig/" + TextOf(member.entry, "rig") + "/" + shot + suffix + Extension(name)
                    : shot + "/" + node + "_" + camera + suffix + Extension(name);
            const std::string local = root + "/" + relative;
            Json placed = {{"name", name},
                           {"path", relative},
                           {"size", size},
                           {"sha256", sha},
                           {"node_sha256", sha}};
            uint64_t onDisk = 0;
            const std::string there = FileSha256(local, &onDisk);
            auto before = known.find(relative);
            std::string why;
            if (before != known.end() && TextOf(before->second, "node_sha256") == sha &&
                TextOf(before->second, "sha256") == there &&
                NumberOf(before->second, "size", -1) == static_cast<long long>(onDisk)) {
                placed = before->second;
                placed["name"] = name;
                progress[relative] = placed;  // written with the next file fetched
                ++tally.kept;
            } else if (there == sha && onDisk == static_cast<uint64_t>(size) && !IsJpeg(name)) {
                ++tally.kept;  // a file that is never stamped, already there
            } else if (!MakeFolders(local.substr(0, local.rfind('/')))) {
                why = "cannot make the folder";
            } else {
                const std::string part = local + ".part";
                why = Fetch(*clients[node], tokens[node],
                            "/api/rig/shots/" + shot + "/" + node + "/" + camera + "/" + name, part,
                            static_cast<uint64_t>(size), sha);
                if (why.empty()) why = Place(part, local, name, identity, placed);
                std::remove(part.c_str());
                if (why.empty()) {
                    ++tally.fetched;
                    // Kept as it goes: a collect cut short is not fetched again.
                    progress[relative] = placed;
                    WriteAtomically(progressPath, progress.dump());
                }
            }
            if (!why.empty()) {
                ++tally.failed;
                complete = false;
                member.entry["reason"] = "download failed: " + why;
                Warn("orqcam rig: %s from %s: %s\n", relative.c_str(), node.c_str(), why.c_str());
                continue;
            }
            member.entry["files"].push_back(placed);
        }
    }

    Json entries = Json::array(), absent = Json::array();
    long long first = 0, last = 0;
    bool fired = false;
    for (Member& member : members) {
        // Every entry has every key: null where its node's record does not tell.
        member.entry["scheduledUs"] = at > 0 ? Json(at) : Json();
        for (const char* key : {"releasedUs", "zoom", "focalLengthMm", "focalLength35mm"})
            if (!member.entry.contains(key)) member.entry[key] = nullptr;
        if (!member.entry.contains("settings")) member.entry["settings"] = Json::object();
        entries.push_back(member.entry);
        auto released = member.entry.find("releasedUs");
        if (released != member.entry.end() && released->is_number_integer()) {
            const long long time = released->get<long long>();
            first = fired ? std::min(first, time) : time;
            last = fired ? std::max(last, time) : time;
            fired = true;
        }
        if (member.entry["files"].empty())
            absent.push_back({{"node", member.node},
                              {"camera", member.camera},
                              {"serial", TextOf(member.entry, "serial")},
                              {"reason", TextOf(member.entry, "reason")}});
    }
    Json manifest = {{"v", kManifestVersion},
                     {"rig", options.rig},
                     {"shot", shot},
                     {"layout", layout},
                     {"at", at},
                     {"collected", UtcMicros()},
                     {"complete", complete},
                     {"spreadUs", fired ? Json(last - first) : Json()},
                     {"missing", absent},
                     {"cameras", entries}};
    if (!WriteAtomically(manifestPath, manifest.dump(1) + "\n"))
        return Failure(kExitCameraError, "cannot write " + manifestPath);
    std::remove(progressPath.c_str());
    Say("%s: %d fetched, %d already there, %d failed; %zu cameras, %s\n", folder.c_str(),
        tally.fetched, tally.kept, tally.failed, entries.size(),
        complete ? "complete" : "INCOMPLETE");
    Outcome outcome;
    outcome.exit = complete ? kExitOk : kExitCameraError;
    outcome.json = Json{
        {"shot", shot},
        {"layout", layout},
        {"folder", folder},
        {"manifest", manifestPath},
        {"fetched", tally.fetched},
        {"kept", tally.kept},
        {"failed", tally.failed},
        {"cameras", entries.size()},
        {"complete",
         complete}}.dump();
    return outcome;
}

}  // namespace rig
}  // namespace orqcam
