#include "SDKConfig.h"

#include <cstdlib>
#include <pugixml.hpp>
#include <string>

#include "Logger.h"

namespace orq {

namespace {

void ApplyBool(bool& field, const std::string& text) {
    if (!text.empty()) field = text == "true";
}

// Leading-number semantics: no leading number is 0, trailing text is ignored.
void ApplyInterval(int32_t& field, const std::string& text) {
    if (text.empty()) return;
    long long value = std::strtoll(text.c_str(), nullptr, 10);
    if (value < 0) return;
    field = value > INT32_MAX ? INT32_MAX : static_cast<int32_t>(value);
}

}  // namespace

void LoadConfig(SDKConfig& config, const std::u16string& path) {
    ORQ_LOG(INF, "Loading config");
    std::string contents;
    pugi::xml_document document;
    pugi::xml_parse_result parsed;
    if (!platform::ReadFile(path, contents)) {
        parsed.status = pugi::status_file_not_found;
    } else {
        parsed = document.load_buffer(contents.data(), contents.size());
    }
    // An empty file holds no element, and counts as a document without settings.
    if (parsed.status != pugi::status_ok && parsed.status != pugi::status_no_document_element) {
        ORQ_LOG(ERR, "LoadConfig ORQSDK.cfg loading error");
        return;
    }
    pugi::xml_node root = document.child("configuration");
    auto read = [&](const char* key) {
        std::string text = root.child(key).attribute("val").value();
        ORQ_LOG(DEB, "cfg: %s: %s", key, text.c_str());
        return text;
    };
    std::string memLogging = read("MemLogging");
    std::string testVersion = read("TestOrqmVer");
    std::string interval = read("PreviewFrameInterval");
    ApplyBool(config.MemLogging, memLogging);
    ApplyBool(config.TestOrqmVer, testVersion);
    ApplyInterval(config.PreviewFrameInterval, interval);
}

}  // namespace orq
