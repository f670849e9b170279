// The start-up steps that read the camera's identity and tidy its card.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CameraText.h"
#include "Kernel/Bytes.h"
#include "Kernel/DeviceLL.h"
#include "Logger.h"
#include "SDKConfig.h"
#include "platform/Platform.h"

namespace orq {

namespace {

struct ModuleVersion {
    int part[4] = {0, 0, 0, 0};
    explicit ModuleVersion(const std::string& text) {
        std::sscanf(text.c_str(), "%d.%d.%d.%d", &part[0], &part[1], &part[2], &part[3]);
    }
};

bool EqualsIgnoringAsciiCase(const std::string& a, const char* b) {
    size_t length = std::strlen(b);
    if (a.size() != length) return false;
    for (size_t i = 0; i < length; ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

// The name's bytes up to the first zero byte, as a narrow "%s" shows a 16-bit text.
std::string AsNarrowBytes(const OrqChar* name) {
    std::string out;
    for (size_t i = 0; i < 128; ++i) {
        auto unit = static_cast<uint16_t>(name[i]);
        if ((unit & 0xFF) == 0) break;
        out += static_cast<char>(unit & 0xFF);
        if ((unit >> 8) == 0) break;
        out += static_cast<char>(unit >> 8);
    }
    return out;
}

}  // namespace

OrqResult DeviceLL::LoadOrqmVersion(const char* required) {
    std::string version;
    OrqResult result = PTPGetOrqmVersion(version);
    if (result != ORQ_OK) return ORQ_ERROR;  // the request has logged its failure
    orqmVersion.assign(version.begin(), version.end());
    if (!sdkConfig || !sdkConfig->TestOrqmVer || !required) return ORQ_OK;
    ModuleVersion current(version), wanted(required);
    for (int i = 0; i < 4; ++i) {
        if (current.part[i] > wanted.part[i]) return ORQ_OK;
        if (current.part[i] < wanted.part[i]) {
            ORQ_LOG(ERR, "Old Orqm version. Current: '%s', required: '%s'",
                    CameraText(version).c_str(), required);
            return ORQ_OLD_MODULE;
        }
    }
    return ORQ_OK;
}

OrqResult DeviceLL::LoadSerialNumber() {
    std::u16string serial;
    if (PTPGetSerialNumber(serial) != ORQ_OK) return ORQ_ERROR;
    serialNumber = std::move(serial);
    return ORQ_OK;
}

OrqResult DeviceLL::CleanMemoryCard() {
    OrqResult result = PTPUpdateObjectsInfo();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPUpdateObjectsInfo failed");
        return result;
    }
    std::vector<OrqFileInfo> stale;
    {
        std::lock_guard<std::mutex> guard(fileTableLock);
        for (const OrqFileInfo& file : fileTable) {
            std::string name = bytes::LowBytes(file.name, 128);
            if (name.size() < 4 || !EqualsIgnoringAsciiCase(name.substr(0, 4), "img_")) continue;
            long number = 0;
            for (size_t i = 4; i < name.size() && name[i] >= '0' && name[i] <= '9'; ++i) {
                number = number * 10 + (name[i] - '0');
                if (number >= 10) break;
            }
            if (number < 10) continue;
            ORQ_LOG(INF, "clean file: %s %d", CameraText(AsNarrowBytes(file.name)).c_str(),
                    file.id);
            stale.push_back(file);
        }
    }
    for (const OrqFileInfo& file : stale) {
        // These are the user's pictures: one leaves the card only once the host holds it.
        if (!KeepVerifiedCopy(file)) {
            ORQ_LOG(ERR, "card file left on the card, no verified copy on the host: %d", file.id);
            continue;
        }
        result = PTPRemoveFile(file.id);
        if (result != ORQ_OK) {
            ORQ_LOG(ERR, "PTPRemoveFile failed: %d", file.id);
            return result;
        }
    }
    return ORQ_OK;
}

bool DeviceLL::KeepVerifiedCopy(const OrqFileInfo& file) {
    const char16_t separator = platform::PathSeparator();
    // The serial number is camera text: only letters, digits, '-' and '_' reach the path.
    std::u16string serial;
    for (char16_t c : serialNumber) {
        bool safe = (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'z') ||
                    (c >= u'A' && c <= u'Z') || c == u'-' || c == u'_';
        if (serial.size() < 64) serial += safe ? c : u'_';
    }
    if (serial.empty()) serial = u"unknown";
    std::u16string folder = platform::LogFolder();
    if (folder.empty()) return false;
    for (const std::u16string& level : {std::u16string(u"orqsdk-card-cleanup"), serial}) {
        folder += separator + level;
        if (!platform::MakeFolder(folder)) return false;
    }
    std::u16string name;
    for (size_t i = 0; i < 128 && file.name[i]; ++i) name += static_cast<char16_t>(file.name[i]);
    // An earlier clean-up's copy of the same name is never replaced.
    std::u16string candidate = name, path;
    for (int n = 1;; ++n) {
        if (!DownloadTarget(folder, candidate, path)) return false;
        if (!platform::PathExists(path)) break;
        if (n == 1000) return false;
        candidate = platform::FromUtf8(std::to_string(n) + "-") + name;
    }

    PtpDataBlock block;
    if (PTPGetObject(static_cast<uint32_t>(file.id), block) != ORQ_OK) return false;
    const uint8_t* data = block.data.get();
    uint64_t size = data ? block.size : 0;
    std::string copy;
    if (!WriteDownloadedFile(path, {{data, size}}) || !platform::ReadFile(path, copy) ||
        copy.size() != size || (size > 0 && std::memcmp(copy.data(), data, size) != 0)) {
        return false;
    }
    // Words of its own: readers count the "clean file: " lines, one per file.
    ORQ_LOG(INF, "kept copy of card file: %s", platform::ToUtf8(path).c_str());
    return true;
}

OrqResult DeviceLL::PTPGetCamLog() {
    if (PTPGetCamLogRequest() != ORQ_OK) return ORQ_OK;
    OrqResult result = PTPUpdateObjectsInfo();
    if (result != ORQ_OK) {
        ORQ_LOG(ERR, "PTPUpdateObjectsInfo failed");
        return result;
    }
    std::lock_guard<std::mutex> guard(fileTableLock);
    for (const OrqFileInfo& file : fileTable) {
        if (!EqualsIgnoringAsciiCase(bytes::LowBytes(file.name, 128), "img_0002.jpg")) continue;
        PtpDataBlock block;
        if (PTPGetObject(static_cast<uint32_t>(file.id), block) != ORQ_OK) return ORQ_ERROR;
        const char* text = reinterpret_cast<const char*>(block.data.get());
        std::string contents = text ? std::string(text, strnlen(text, block.size)) : "";
        ORQ_LOG(INF, "camera log:");
        // Line breaks included, it must not pass for lines of ours; the line holds what fits.
        ORQ_LOG(INF, "%s", CameraText(contents, 4096).c_str());
        return ORQ_OK;
    }
    return ORQ_OK;
}

}  // namespace orq
