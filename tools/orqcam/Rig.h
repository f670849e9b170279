// orqcam node and orqcam rig: cameras on several machines that fire together over an MQTT broker.
// The topics and payloads are a published interface: docs/rig.md.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Args.h"
#include "Output.h"
#include "Session.h"

struct mosquitto;

namespace orqcam {

// The two verbs.
Outcome RigNode(const Options& options, const std::vector<Camera*>& cameras);
Outcome RigControl(const Options& options);

namespace rig {

using Json = nlohmann::json;

constexpr int kVersion = 1;
// A message bigger than this is dropped unread: a rig's largest is a report of 1024 cameras.
constexpr size_t kMaxPayload = 1 << 20;

// Rig, node and camera names and command ids: topic levels and folder names alike.
bool ValidName(const std::string& text);
// Every character outside the names' set replaced by '_', cut to 64.
std::string SafeName(const std::string& text);
std::string Prefix(const std::string& rig);
long long UtcMicros();
// JSON of a message, or false for anything but an object within kMaxPayload.
bool ParseObject(const std::string& payload, Json& object);
// A member's value when it has that type, otherwise the fallback.
std::string TextOf(const Json& object, const char* key, const std::string& fallback = "");
long long NumberOf(const Json& object, const char* key, long long fallback = 0);
// True only for a JSON true; a member that is an object or an array, else an empty one.
bool FlagOf(const Json& object, const char* key);
Json ObjectOf(const Json& object, const char* key);
Json ListOf(const Json& object, const char* key);

// Files: SHA-256 (lowercase hex) and size of what is on disk, empty when unreadable; folders
// made with their parents; a file written beside its place and renamed in.
std::string FileSha256(const std::string& path, uint64_t* size);
bool MakeFolders(const std::string& path);
bool WriteAtomically(const std::string& path, const std::string& text);

struct BrokerAddress {
    bool tls = false;
    std::string user, password, host;
    int port = 1883;
};
// The URL and the password from --password-file, ORQ_RIG_PASSWORD or the URL, in that order.
bool ResolveBroker(const Options& options, BrokerAddress& address, std::string& error);

// The rig map D/rig-map.txt (docs/rig.md): a folder number per serial, the file's text kept as
// its owner wrote it and new cameras appended.
struct RigMap {
    std::string path, text;
    std::map<std::string, std::string> folders;  // serial -> "003"
    long long next = 0;                          // the number a new camera gets
    bool changed = false;
};
// A missing file is an empty map; a line that is no 'NNN SERIAL' or repeats a number or serial
// is refused, naming the line.
bool ReadRigMap(const std::string& path, RigMap& map, std::string& error);
// The serial's folder; a new serial is appended with the next number.
std::string RigFolderOf(RigMap& map, const std::string& serial);
// Written (beside and renamed in) when a camera was added.
bool SaveRigMap(RigMap& map);

// A node's record of a shot from its file server (docs/rig.md), an empty object when it has
// none or does not answer within a few seconds.
Json NodeRecord(const Json& state, const std::string& shot);
// rig collect (RigCollect.cpp), from the nodes and cameras the broker holds.
Outcome CollectShot(const Options& options, const std::map<std::string, Json>& nodes,
                    const std::map<std::string, Json>& cameras);

// One connection to the broker and its network thread, which delivers messages and (re)connects:
// after a lost connection it connects again every 1 to 2 s.
class Broker {
public:
    using Handler = std::function<void(const std::string& topic, const std::string& payload)>;

    Broker();
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Both before Connect; they run on the network thread.
    void OnMessage(Handler handler) { onMessage = std::move(handler); }
    void OnConnected(std::function<void()> handler) { onConnected = std::move(handler); }

    // Connects and waits up to timeoutMs for the broker's answer. A will, if given, is retained.
    // The failure: kExitBroker (refused, unreachable, no answer) or kExitUsage (bad options).
    Outcome Connect(const Options& options, const std::string& clientId,
                    const std::string& willTopic, const std::string& willPayload, int timeoutMs);
    bool Subscribe(const std::string& pattern);
    // QoS 1. Waits until the broker acknowledged it when waitMs > 0.
    bool Publish(const std::string& topic, const std::string& payload, bool retain, int waitMs = 0);
    // Subscribes and returns once the broker has sent every retained message of the patterns:
    // it echoes a message of our own after them.
    bool Settle(const std::vector<std::string>& patterns, const std::string& rig, int timeoutMs);
    // The address this machine reaches the broker from.
    std::string LocalAddress();
    void Disconnect();

private:
    static void Connected(mosquitto*, void* self, int code);
    static void Received(mosquitto*, void* self, const struct mosquitto_message* message);
    static void Published(mosquitto*, void* self, int mid);
    static void Dropped(mosquitto*, void* self, int code);

    mosquitto* handle = nullptr;
    bool looping = false;
    Handler onMessage;
    std::function<void()> onConnected;
    std::string echoTopic;
    std::mutex lock;
    std::condition_variable changed;
    int answer = -1;       // the broker's CONNACK code; -1 before one
    bool dropped = false;  // the connection closed before any answer
    bool echoed = false;
    std::vector<int> acknowledged;
};

}  // namespace rig
}  // namespace orqcam
