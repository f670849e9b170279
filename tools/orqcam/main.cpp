// orqcam: look at and change a camera's settings from the command line, over the public API.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "SdkLibrary.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitNoCamera = 2;
constexpr int kExitFailed = 3;
constexpr int kLastPropertyId = 25;

SdkLibrary sdk;
bool json = false;

const char* kUsage =
    "usage: orqcam [--virtual MODEL] [--json] [--camera N] COMMAND\n"
    "  list                     cameras found\n"
    "  info                     identity of the camera\n"
    "  props                    every offered property, its value and offered values\n"
    "  get NAME|ID              one property\n"
    "  set NAME|ID VALUE|NAME   change a property\n"
    "  watch [SECONDS]          print events as they arrive (default 10 s)\n"
    "--virtual MODEL runs against a virtual camera of that model (e.g. SX160) instead of USB.\n";

std::string Utf8(const OrqChar* text) {
    std::string out;
    for (; text && *text; ++text) {
        auto c = static_cast<uint32_t>(static_cast<uint16_t>(*text));
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string JsonText(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
            continue;
        }
        out += c;
    }
    return out + "\"";
}

std::string PropertyName(int id) {
    OrqChar* name = nullptr;
    return sdk.GetPropertyName(id, &name) == ORQ_OK ? Utf8(name) : "";
}

std::string ValueName(int id, int value) {
    OrqChar* name = nullptr;
    return sdk.GetPropertyValName(id, value, &name) == ORQ_OK ? Utf8(name) : std::to_string(value);
}

bool ParseInteger(const std::string& text, int& value) {
    char* end = nullptr;
    long parsed = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end) return false;
    value = static_cast<int>(parsed);
    return true;
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

struct Options {
    std::string model;
    int camera = 0;
    std::vector<std::string> command;
};

struct Property {
    int id;
    int value;
    bool readOnly;
    std::vector<int> offered;
};

bool ReadProperty(OrqSessionHandle session, int id, Property& property) {
    property = Property{id, 0, false, {}};
    if (sdk.GetPropertyData(session, id, &property.value) != ORQ_OK) return false;
    OrqPropertyDesc* desc = nullptr;
    if (sdk.GetPropertyDesc(session, id, &desc) == ORQ_OK && desc) {
        property.readOnly = desc->readOnly != 0;
        property.offered.assign(desc->values, desc->values + desc->count);
        sdk.Free(desc);
    }
    return true;
}

void PrintProperties(const std::vector<Property>& properties) {
    if (json) {
        std::printf("[");
        for (size_t i = 0; i < properties.size(); ++i) {
            const Property& p = properties[i];
            std::printf(
                "%s{\"id\":%d,\"name\":%s,\"value\":%d,\"valueName\":%s,\"readOnly\":%s,"
                "\"offered\":[",
                i ? "," : "", p.id, JsonText(PropertyName(p.id)).c_str(), p.value,
                JsonText(ValueName(p.id, p.value)).c_str(), p.readOnly ? "true" : "false");
            for (size_t k = 0; k < p.offered.size(); ++k) {
                std::printf("%s{\"value\":%d,\"name\":%s}", k ? "," : "", p.offered[k],
                            JsonText(ValueName(p.id, p.offered[k])).c_str());
            }
            std::printf("]}");
        }
        std::printf("]\n");
        return;
    }
    std::printf("%-4s %-22s %-18s %s\n", "ID", "PROPERTY", "VALUE", "OFFERED");
    for (const Property& p : properties) {
        std::string offered;
        for (int value : p.offered)
            offered += (offered.empty() ? "" : ", ") + ValueName(p.id, value);
        if (p.readOnly) offered = "(read-only)";
        std::printf("%-4d %-22s %-18s %s\n", p.id, PropertyName(p.id).c_str(),
                    ValueName(p.id, p.value).c_str(), offered.c_str());
    }
}

void PrintCameras(const OrqCameraInfo* list, int count) {
    if (json) {
        std::printf("[");
        for (int i = 0; i < count; ++i) {
            std::printf(
                "%s{\"index\":%d,\"id\":%u,\"name\":%s,\"serial\":%s,\"version\":%s,"
                "\"path\":%s}",
                i ? "," : "", i, list[i].id, JsonText(Utf8(list[i].name)).c_str(),
                JsonText(Utf8(list[i].serial)).c_str(), JsonText(Utf8(list[i].version)).c_str(),
                JsonText(Utf8(list[i].path)).c_str());
        }
        std::printf("]\n");
        return;
    }
    std::printf("%-3s %-10s %-28s %-16s %-10s %s\n", "#", "ID", "NAME", "SERIAL", "MODULE", "PATH");
    for (int i = 0; i < count; ++i) {
        std::printf("%-3d %-10u %-28s %-16s %-10s %s\n", i, list[i].id, Utf8(list[i].name).c_str(),
                    Utf8(list[i].serial).c_str(), Utf8(list[i].version).c_str(),
                    Utf8(list[i].path).c_str());
    }
}

std::atomic<int> lastCameraError{0};

void OnCameraList(void*, OrqCameraInfo* info, int state) {
    std::printf(json ? "{\"event\":\"camera\",\"state\":%s,\"name\":%s}\n" : "camera %s: %s\n",
                json ? (state == 0 ? "\"connected\"" : "\"disconnected\"")
                     : (state == 0 ? "connected" : "disconnected"),
                (json ? JsonText(Utf8(info->name)) : Utf8(info->name)).c_str());
    std::fflush(stdout);
    sdk.Free(info);
}

void OnPropertyChanged(void* session, int id) {
    int value = 0;
    sdk.GetPropertyData(static_cast<OrqSessionHandle>(session), id, &value);
    if (json) {
        std::printf("{\"event\":\"property\",\"id\":%d,\"value\":%d}\n", id, value);
    } else {
        std::printf("property %s = %s\n", PropertyName(id).c_str(), ValueName(id, value).c_str());
    }
    std::fflush(stdout);
}

void OnCameraError(void*, OrqResult result) {
    lastCameraError = result;
    std::printf(json ? "{\"event\":\"error\",\"result\":%d}\n" : "camera error %d\n", result);
    std::fflush(stdout);
}

int RunCommand(const Options& options, OrqCameraManagerHandle manager) {
    const std::string& verb = options.command[0];
    OrqCameraInfo* list = nullptr;
    int count = 0;
    if (sdk.GetCameraList(manager, &list, &count) != ORQ_OK) return kExitFailed;
    if (verb == "list") {
        PrintCameras(list, count);
        sdk.Free(list);
        return count ? kExitOk : kExitNoCamera;
    }
    if (count == 0 || options.camera >= count) {
        std::fprintf(stderr,
                     "orqcam: no camera found. Attach one, or try a virtual camera: "
                     "orqcam --virtual SX160 %s\n",
                     verb.c_str());
        sdk.Free(list);
        return kExitNoCamera;
    }
    OrqCameraInfo chosen = list[options.camera];
    sdk.Free(list);
    OrqSessionHandle session = nullptr;
    OrqResult opened = sdk.OpenSession(manager, static_cast<int>(chosen.id), &session);
    if (opened != ORQ_OK) {
        std::fprintf(stderr, "orqcam: cannot open a session: result %d\n", opened);
        return kExitFailed;
    }
    int exitCode = kExitOk;
    if (verb == "info") {
        PrintCameras(&chosen, 1);
    } else if (verb == "props") {
        int* ids = nullptr;
        int idCount = 0;
        std::vector<Property> properties;
        if (sdk.GetPropertyList(session, &ids, &idCount) == ORQ_OK) {
            for (int i = 0; i < idCount; ++i) {
                Property property;
                if (ReadProperty(session, ids[i], property)) properties.push_back(property);
            }
            sdk.Free(ids);
        }
        PrintProperties(properties);
    } else if (verb == "get" || verb == "set") {
        int id = 0;
        if (options.command.size() != (verb == "get" ? 2u : 3u)) {
            std::fputs(kUsage, stderr);
            exitCode = kExitUsage;
        } else if (!FindProperty(options.command[1], id)) {
            std::fprintf(stderr, "orqcam: unknown property '%s'\n", options.command[1].c_str());
            exitCode = kExitUsage;
        } else {
            Property property;
            if (!ReadProperty(session, id, property)) {
                std::fprintf(stderr, "orqcam: the camera does not offer %s\n",
                             PropertyName(id).c_str());
                exitCode = kExitFailed;
            } else if (verb == "set") {
                int value = 0;
                bool named = false;
                for (int offered : property.offered) {
                    if (Lower(ValueName(id, offered)) == Lower(options.command[2])) {
                        value = offered;
                        named = true;
                    }
                }
                if (!named && !ParseInteger(options.command[2], value)) {
                    std::fprintf(stderr, "orqcam: %s has no value '%s'\n", PropertyName(id).c_str(),
                                 options.command[2].c_str());
                    exitCode = kExitUsage;
                } else {
                    OrqResult set = sdk.SetPropertyData(session, id, value);
                    if (set != ORQ_OK) {
                        std::fprintf(stderr, "orqcam: set failed: result %d\n", set);
                        exitCode = kExitFailed;
                    } else {
                        ReadProperty(session, id, property);
                    }
                }
            }
            if (exitCode == kExitOk) PrintProperties({property});
        }
    } else if (verb == "watch") {
        int seconds = 10;
        if (options.command.size() > 1) ParseInteger(options.command[1], seconds);
        OrqSubscription cameras = sdk.CameraListChangedSubscribe(manager, OnCameraList, nullptr);
        OrqSubscription properties =
            sdk.PropertyChangedSubscribe(session, OnPropertyChanged, session);
        OrqSubscription errors = sdk.CameraErrorSubscribe(session, OnCameraError, nullptr);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        sdk.Free(errors);
        sdk.Free(properties);
        sdk.Free(cameras);
        if (lastCameraError) exitCode = kExitFailed;
    } else {
        std::fputs(kUsage, stderr);
        exitCode = kExitUsage;
    }
    sdk.Free(session);
    return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--virtual" && i + 1 < argc) {
            options.model = argv[++i];
        } else if (arg == "--camera" && i + 1 < argc) {
            options.camera = std::atoi(argv[++i]);
        } else if (arg == "--json") {
            json = true;
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        } else {
            options.command.push_back(arg);
        }
    }
    if (options.command.empty()) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    std::string error;
    if (!sdk.Load(!options.model.empty(), error)) {
        std::fprintf(stderr, "orqcam: %s\n", error.c_str());
        return kExitFailed;
    }
    if (!options.model.empty() && !sdk.SimAttachCamera(options.model.c_str())) {
        std::fprintf(stderr, "orqcam: cannot attach a virtual %s\n", options.model.c_str());
        return kExitFailed;
    }
    OrqResult started = sdk.InitializeSDK();
    if (started != ORQ_OK) {
        std::fprintf(stderr, "orqcam: the SDK did not start: result %d\n", started);
        return kExitFailed;
    }
    OrqCameraManagerHandle manager = sdk.GetCameraManager();
    int exitCode = RunCommand(options, manager);
    sdk.Free(manager);
    sdk.TerminateSDK();
    return exitCode;
}
