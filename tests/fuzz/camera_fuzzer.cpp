// libFuzzer target: a whole camera session played against a camera whose every answer comes from
// the fuzzer's bytes. See README.md for the input's layout and how to run it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Logger.h"
#include "camera_session.h"
#include "models/CameraConfig.h"
#include "virtual_clock.h"

namespace {

using orq::UsbBuffer;
using orq::UsbDevice;

constexpr char16_t kPath[] = u"orqfuzz://camera";
constexpr size_t kHeaderSize = 2;
enum : uint8_t { kFlagMemLogging = 1, kFlagNoVersionTest = 2 };

// The camera: it takes any well-formed command and answers from the input, byte for byte, until
// the input runs out, after which every read fails as on a pulled cable. The operations the
// session runs are chosen from the same bytes, where the session asks for them.
class ScriptedCamera : public orq::UsbLib, public orqfuzz::SessionSource {
public:
    ScriptedCamera(std::u16string name, const uint8_t* data, size_t size)
        : name(std::move(name)), data(data), size(size) {}

    std::set<std::u16string> GetAllConnectedDevicePaths() override { return {kPath}; }

    UsbDevice* OpenDevice(std::u16string path) override {
        if (path != kPath || opened) return nullptr;
        opened = true;
        return Handle();
    }

    void CloseDevice(UsbDevice* device) override {
        if (device == Handle()) closed = true;
    }

    void ReleaseDevice(UsbDevice* device) override { CloseDevice(device); }

    std::u16string GetDeviceName(UsbDevice* device) override {
        return device == Handle() ? name : std::u16string();
    }

    bool UsbReadExactly(UsbBuffer buffer, UsbDevice* device) override {
        if (device != Handle() || closed) return false;
        const size_t count =
            buffer.size < size - offset ? static_cast<size_t>(buffer.size) : size - offset;
        if (count) std::memcpy(buffer.data, data + offset, count);
        offset += count;
        return count == buffer.size;
    }

    bool UsbWrite(UsbBuffer buffer, UsbDevice* device) override {
        if (device != Handle() || closed) return false;
        // The host must send whole command containers, whatever the camera did before.
        if (buffer.size < 12 || buffer.size > 512) std::abort();
        const uint8_t* p = buffer.data;
        const uint32_t length = p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24;
        if (length != buffer.size || p[4] != 1 || p[5] != 0) std::abort();
        return true;
    }

    bool Choose(uint8_t& value) override {
        if (offset >= size) return false;
        value = data[offset++];
        return true;
    }

    void Wait(std::chrono::milliseconds delay) override { orqfuzz::AdvanceVirtualTime(delay); }

private:
    UsbDevice* Handle() { return reinterpret_cast<UsbDevice*>(this); }

    std::u16string name;
    const uint8_t* data;
    size_t size;
    size_t offset = 0;
    bool opened = false;
    bool closed = false;
};

std::u16string downloadPath;

std::u16string Widen(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log lines are formatted but go nowhere, unless ORQ_FUZZ_LOG names a folder for them.
    const char* logFolder = std::getenv("ORQ_FUZZ_LOG");
    setenv("XDG_STATE_HOME", logFolder ? logFolder : "/dev/null/orq-fuzz", 1);
    if (!logFolder) orq::SetLogSink([](uint32_t, const char*, size_t) {});

    const char* tmp = std::getenv("TMPDIR");
    std::string folder = std::string(tmp && *tmp ? tmp : "/tmp") + "/orq-fuzz-XXXXXX";
    if (!mkdtemp(folder.data())) {
        std::perror("camera_fuzzer: no download folder");
        std::exit(1);
    }
    downloadPath = Widen(folder + "/download.jpg");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kHeaderSize) return -1;
    const auto& models = orq::CameraConfigTable();
    const orq::CameraConfig& model = models[data[0] % models.size()];
    orq::SDKConfig config;
    config.MemLogging = data[1] & kFlagMemLogging;
    config.TestOrqmVer = !(data[1] & kFlagNoVersionTest);

    ScriptedCamera camera(u"Orq Camera " + model.name, data + kHeaderSize, size - kHeaderSize);
    orqfuzz::BeginVirtualTime();
    orqfuzz::PlaySession(&camera, kPath, camera, config, downloadPath);
    orqfuzz::EndVirtualTime();
    return 0;
}
