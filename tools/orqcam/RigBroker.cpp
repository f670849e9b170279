// What node and controller share: names, times, files, and the connection to the broker.
#include <mosquitto.h>
#include <netdb.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>

#include "Rig.h"

namespace orqcam {
namespace rig {

namespace {

constexpr int kKeepAliveSeconds = 5;

bool NameCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

std::string Trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

std::string Decoded(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

bool ValidName(const std::string& text) {
    return !text.empty() && text.size() <= 64 && text != "." && text != ".." &&
           std::all_of(text.begin(), text.end(), NameCharacter);
}

std::string SafeName(const std::string& text) {
    std::string out = text.substr(0, 64);
    for (char& c : out)
        if (!NameCharacter(c)) c = '_';
    if (out.empty() || out == "." || out == "..") out = "unknown";
    return out;
}

std::string Prefix(const std::string& rig) {
    return "orq/v" + std::to_string(kVersion) + "/" + rig + "/";
}

long long UtcMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool ParseObject(const std::string& payload, Json& object) {
    if (payload.size() > kMaxPayload) return false;
    object = Json::parse(payload, nullptr, false);
    return !object.is_discarded() && object.is_object();
}

std::string TextOf(const Json& object, const char* key, const std::string& fallback) {
    auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : fallback;
}

long long NumberOf(const Json& object, const char* key, long long fallback) {
    auto found = object.find(key);
    return found != object.end() && found->is_number_integer() ? found->get<long long>() : fallback;
}

bool FlagOf(const Json& object, const char* key) {
    auto found = object.find(key);
    return found != object.end() && found->is_boolean() && found->get<bool>();
}

Json ObjectOf(const Json& object, const char* key) {
    auto found = object.find(key);
    return found != object.end() && found->is_object() ? *found : Json::object();
}

Json ListOf(const Json& object, const char* key) {
    auto found = object.find(key);
    return found != object.end() && found->is_array() ? *found : Json::array();
}

std::string FileSha256(const std::string& path, uint64_t* size) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "";
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return "";
    std::vector<char> buffer(1 << 16);
    uint64_t total = 0;
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        std::streamsize got = in.gcount();
        if (got <= 0) break;
        total += static_cast<uint64_t>(got);
        EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got));
    }
    if (in.bad()) return "";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return "";
    static const char* hex = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += hex[digest[i] >> 4];
        text += hex[digest[i] & 15];
    }
    if (size) *size = total;
    return text;
}

bool MakeFolders(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string part = path.substr(0, slash);
        if (!part.empty() && mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) return true;
    }
}

bool WriteAtomically(const std::string& path, const std::string& text) {
    std::string part = path + ".part";
    {
        std::ofstream out(part, std::ios::binary | std::ios::trunc);
        out << text;
        out.flush();
        if (!out) return false;
    }
    return std::rename(part.c_str(), path.c_str()) == 0;
}

bool ResolveBroker(const Options& options, BrokerAddress& address, std::string& error) {
    std::string url = options.broker;
    if (url.rfind("mqtt://", 0) == 0) {
        url = url.substr(7);
    } else if (url.rfind("mqtts://", 0) == 0) {
        url = url.substr(8);
        address.tls = true;
        address.port = 8883;
    } else {
        error = "--broker takes mqtt://[user[:password]@]host[:port] or mqtts://..., not '" +
                options.broker + "'";
        return false;
    }
    if (!url.empty() && url.back() == '/') url.pop_back();
    size_t at = url.rfind('@');
    if (at != std::string::npos) {
        std::string credentials = url.substr(0, at);
        url = url.substr(at + 1);
        size_t colon = credentials.find(':');
        address.user = Decoded(credentials.substr(0, colon));
        if (colon != std::string::npos) address.password = Decoded(credentials.substr(colon + 1));
    }
    size_t colon = url.rfind(':');
    if (colon != std::string::npos && url.find(']', colon) == std::string::npos) {
        if (!ParseInteger(url.substr(colon + 1), address.port) || address.port < 1 ||
            address.port > 65535) {
            error = "the broker's port must be a number from 1 to 65535";
            return false;
        }
        url = url.substr(0, colon);
    }
    if (url.size() > 2 && url.front() == '[' && url.back() == ']')
        url = url.substr(1, url.size() - 2);
    address.host = url;
    if (address.host.empty()) {
        error = "--broker names no host";
        return false;
    }
    if (!options.passwordFile.empty()) {
        std::ifstream in(options.passwordFile);
        std::string line;
        if (!in || !std::getline(in, line)) {
            error = "cannot read the password from " + options.passwordFile;
            return false;
        }
        address.password = Trimmed(line);
    } else if (const char* fromEnvironment = std::getenv("ORQ_RIG_PASSWORD")) {
        address.password = fromEnvironment;
    }
    if (!address.password.empty() && address.user.empty()) {
        error = "a password needs a user: mqtt://user@host";
        return false;
    }
    if (!options.cafile.empty() && !address.tls) {
        error = "--cafile is for mqtts:// brokers";
        return false;
    }
    return true;
}

Broker::Broker() {
    static std::once_flag initialised;
    std::call_once(initialised, [] { mosquitto_lib_init(); });
}

Broker::~Broker() {
    Disconnect();
    if (handle) mosquitto_destroy(handle);
}

void Broker::Connected(mosquitto*, void* self, int code) {
    auto* broker = static_cast<Broker*>(self);
    {
        std::lock_guard<std::mutex> guard(broker->lock);
        broker->answer = code;
    }
    broker->changed.notify_all();
    if (code == 0 && broker->onConnected) broker->onConnected();
}

void Broker::Received(mosquitto*, void* self, const mosquitto_message* message) {
    auto* broker = static_cast<Broker*>(self);
    if (!message->topic || message->payloadlen < 0 ||
        static_cast<size_t>(message->payloadlen) > kMaxPayload)
        return;
    std::string topic = message->topic;
    std::string payload(static_cast<const char*>(message->payload),
                        static_cast<size_t>(message->payloadlen));
    if (topic == broker->echoTopic) {
        {
            std::lock_guard<std::mutex> guard(broker->lock);
            broker->echoed = true;
        }
        broker->changed.notify_all();
        return;
    }
    // Whoever may publish on the rig's topics must not be able to end this process.
    try {
        if (broker->onMessage) broker->onMessage(topic, payload);
    } catch (const std::exception& error) {
        Warn("orqcam rig: a message on %s could not be read: %s\n", SafeName(topic).c_str(),
             error.what());
    }
}

void Broker::Dropped(mosquitto*, void* self, int) {
    auto* broker = static_cast<Broker*>(self);
    {
        std::lock_guard<std::mutex> guard(broker->lock);
        if (broker->answer < 0) broker->dropped = true;
    }
    broker->changed.notify_all();
}

void Broker::Published(mosquitto*, void* self, int mid) {
    auto* broker = static_cast<Broker*>(self);
    {
        std::lock_guard<std::mutex> guard(broker->lock);
        broker->acknowledged.push_back(mid);
        if (broker->acknowledged.size() > 4096)
            broker->acknowledged.erase(broker->acknowledged.begin(),
                                       broker->acknowledged.begin() + 2048);
    }
    broker->changed.notify_all();
}

Outcome Broker::Connect(const Options& options, const std::string& clientId,
                        const std::string& willTopic, const std::string& willPayload,
                        int timeoutMs) {
    BrokerAddress address;
    std::string error;
    if (!ResolveBroker(options, address, error)) return Failure(kExitUsage, error);
    handle = mosquitto_new(clientId.c_str(), true, this);
    if (!handle) return Failure(kExitBroker, "cannot make an MQTT client");
    mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_connect_callback_set(handle, &Broker::Connected);
    mosquitto_message_callback_set(handle, &Broker::Received);
    mosquitto_publish_callback_set(handle, &Broker::Published);
    mosquitto_disconnect_callback_set(handle, &Broker::Dropped);
    mosquitto_reconnect_delay_set(handle, 1, 2, false);
    if (!address.user.empty() &&
        mosquitto_username_pw_set(handle, address.user.c_str(),
                                  address.password.empty() ? nullptr : address.password.c_str()) !=
            MOSQ_ERR_SUCCESS)
        return Failure(kExitUsage, "the broker's user or password is not usable");
    if (address.tls) {
        int set = mosquitto_tls_set(
            handle, options.cafile.empty() ? nullptr : options.cafile.c_str(),
            options.cafile.empty() ? "/etc/ssl/certs" : nullptr, nullptr, nullptr, nullptr);
        if (set != MOSQ_ERR_SUCCESS)
            return Failure(kExitUsage, std::string("TLS: ") + mosquitto_strerror(set));
    }
    if (!willTopic.empty()) {
        mosquitto_will_set(handle, willTopic.c_str(), static_cast<int>(willPayload.size()),
                           willPayload.data(), 1, true);
    }
    echoTopic = "orq/v1/" + SafeName(options.rig) + "/echo/" + clientId;
    std::string where = address.host + ":" + std::to_string(address.port);
    int connected =
        mosquitto_connect(handle, address.host.c_str(), address.port, kKeepAliveSeconds);
    if (connected != MOSQ_ERR_SUCCESS) {
        std::string why =
            connected == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(connected);
        return Failure(kExitBroker, "cannot reach the broker at " + where + ": " + why);
    }
    if (mosquitto_loop_start(handle) != MOSQ_ERR_SUCCESS)
        return Failure(kExitBroker, "cannot start the MQTT network thread");
    looping = true;
    std::unique_lock<std::mutex> guard(lock);
    bool answered = changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                                     [this] { return answer >= 0 || dropped; });
    int code = answer;
    bool closed = dropped;
    guard.unlock();
    if (closed && code < 0) {
        Disconnect();
        return Failure(kExitBroker, "the broker at " + where + " closed the connection unanswered" +
                                        (address.tls ? " (TLS refused?)" : " (does it want TLS?)"));
    }
    if (!answered) {
        Disconnect();
        return Failure(kExitBroker, "the broker at " + where + " did not answer within " +
                                        std::to_string(timeoutMs / 1000) + " s" +
                                        (address.tls ? " (a TLS handshake that failed?)" : ""));
    }
    if (code != 0) {
        Disconnect();
        std::string why = code == 4 || code == 5 ? "wrong user or password, or not authorised"
                                                 : mosquitto_connack_string(code);
        return Failure(kExitBroker, "the broker at " + where + " refused us: " + why);
    }
    return Outcome{};
}

bool Broker::Subscribe(const std::string& pattern) {
    return handle && mosquitto_subscribe(handle, nullptr, pattern.c_str(), 1) == MOSQ_ERR_SUCCESS;
}

bool Broker::Publish(const std::string& topic, const std::string& payload, bool retain,
                     int waitMs) {
    if (!handle) return false;
    int mid = 0;
    if (mosquitto_publish(handle, &mid, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), 1, retain) != MOSQ_ERR_SUCCESS)
        return false;
    if (waitMs <= 0) return true;
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, std::chrono::milliseconds(waitMs), [&] {
        return std::find(acknowledged.begin(), acknowledged.end(), mid) != acknowledged.end();
    });
}

bool Broker::Settle(const std::vector<std::string>& patterns, const std::string&, int timeoutMs) {
    {
        std::lock_guard<std::mutex> guard(lock);
        echoed = false;
    }
    if (!Subscribe(echoTopic)) return false;
    for (const std::string& pattern : patterns)
        if (!Subscribe(pattern)) return false;
    if (!Publish(echoTopic, "{}", false)) return false;
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), [this] { return echoed; });
}

std::string Broker::LocalAddress() {
    int socket = handle ? mosquitto_socket(handle) : -1;
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    if (socket < 0 || getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) != 0)
        return "127.0.0.1";
    char host[NI_MAXHOST] = {};
    if (getnameinfo(reinterpret_cast<sockaddr*>(&local), length, host, sizeof host, nullptr, 0,
                    NI_NUMERICHOST) != 0)
        return "127.0.0.1";
    std::string text = host;
    return text.find(':') != std::string::npos ? "[" + text + "]" : text;
}

void Broker::Disconnect() {
    if (!handle || !looping) return;
    mosquitto_disconnect(handle);
    mosquitto_loop_stop(handle, false);
    looping = false;
}

}  // namespace rig
}  // namespace orqcam
