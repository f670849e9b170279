// Records the seed corpus of camera_fuzzer: the session played against the virtual camera, with
// every byte the camera sends and every choice of the script written down in the order the
// fuzzer reads them back. Usage: camera_fuzz_record <folder>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "camera_session.h"
#include "models/CameraConfig.h"
#include "sim/VirtualBus.h"
#include "sim/VirtualCamera.h"

namespace {

using namespace orqfuzz;
using orq::UsbBuffer;
using orq::UsbDevice;

class NoNotify : public orq::IUsbLib_Notify {
public:
    void OnDeviceChange() override {}
};

// The virtual camera's transport, with a tape: the seed's header, then what the session read.
class Recorder : public orq::UsbLib, public SessionSource {
public:
    Recorder(std::vector<uint8_t> header, std::vector<uint8_t> script)
        : tape(std::move(header)), script(std::move(script)) {}

    std::set<std::u16string> GetAllConnectedDevicePaths() override {
        return inner->GetAllConnectedDevicePaths();
    }
    UsbDevice* OpenDevice(std::u16string path) override { return inner->OpenDevice(path); }
    void CloseDevice(UsbDevice* device) override { inner->CloseDevice(device); }
    void ReleaseDevice(UsbDevice* device) override { inner->ReleaseDevice(device); }
    std::u16string GetDeviceName(UsbDevice* device) override {
        return inner->GetDeviceName(device);
    }
    bool UsbReadExactly(UsbBuffer buffer, UsbDevice* device) override {
        if (!inner->UsbReadExactly(buffer, device)) {
            failed = true;
            return false;
        }
        tape.insert(tape.end(), buffer.data, buffer.data + buffer.size);
        return true;
    }
    bool UsbWrite(UsbBuffer buffer, UsbDevice* device) override {
        return inner->UsbWrite(buffer, device);
    }

    bool Choose(uint8_t& value) override {
        if (next >= script.size()) return false;
        value = script[next++];
        tape.push_back(value);
        return true;
    }
    void Wait(std::chrono::milliseconds delay) override { std::this_thread::sleep_for(delay); }

    std::vector<uint8_t> tape;
    bool failed = false;

private:
    NoNotify notify;
    std::unique_ptr<orq::UsbLib> inner = orqsim::CreateVirtualUsbLib(&notify);
    std::vector<uint8_t> script;
    size_t next = 0;
};

// Which entry of the model's property table, and which of its values, the script names.
std::vector<uint8_t> SetProperty(const orq::CameraConfig& model, int32_t id, int32_t value) {
    uint8_t which = 0;
    for (auto entry = model.properties.begin(); entry->first != id; ++entry) ++which;
    const auto& values = model.properties.at(id).values;
    uint8_t choice = 0;
    while (values[choice].value != value) ++choice;
    return {kSetProperty, which, choice};
}

// `prepare` sets the camera up before it is plugged in.
bool Record(const std::string& folder, const std::string& code, const char* label, uint8_t flags,
            std::vector<uint8_t> script,
            const std::function<void(orqsim::VirtualCamera&)>& prepare = {}) {
    const auto& models = orq::CameraConfigTable();
    uint8_t index = 0;
    while (index < models.size() && models[index].name != std::u16string(code.begin(), code.end()))
        ++index;

    orqsim::CameraOptions options;
    options.model = code;
    options.shotFileSize = 600;
    options.remotePictureSize = 900;
    options.remoteChunkSize = 400;
    options.videoBytesPerSecond = 100;
    auto camera = std::make_shared<orqsim::VirtualCamera>(options);
    auto settings = camera->VideoSettings();
    settings[1] = 24;  // a small live view keeps the seed small
    settings[2] = 16;
    settings[5] = 16;
    camera->SetVideoSettings(settings);
    camera->AddFileOfSize(u"IMG_0001.JPG", 300);
    camera->AddFileOfSize(u"MVI_0002.MOV", 200);
    if (prepare) prepare(*camera);
    const std::u16string path = u"orqsim://seed/" + std::u16string(code.begin(), code.end());
    camera->PlugIn(path);

    Recorder recorder({index, flags}, std::move(script));
    orq::SDKConfig config;
    config.MemLogging = flags & 1;
    PlaySession(&recorder, path, recorder, config, u"/dev/null");
    camera->Unplug();

    const std::string name = folder + "/" + code + "-" + label;
    FILE* out = std::fopen(name.c_str(), "wb");
    if (!out || recorder.failed) {
        std::fprintf(stderr, "%s: %s\n", name.c_str(), out ? "a transfer failed" : "cannot write");
        if (out) std::fclose(out);
        return false;
    }
    std::fwrite(recorder.tape.data(), 1, recorder.tape.size(), out);
    std::fclose(out);
    std::printf("%s: %zu bytes\n", name.c_str(), recorder.tape.size());
    return true;
}

std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
        return 2;
    }
    const std::string folder = argv[1];
    const auto& models = orq::CameraConfigTable();
    auto model = [&](const char* code) -> const orq::CameraConfig& {
        for (const auto& entry : models)
            if (entry.name == std::u16string(code, code + std::char_traits<char>::length(code)))
                return entry;
        std::fprintf(stderr, "no model %s\n", code);
        std::exit(2);
    };

    // To the card: shot, listing, download, preview, lens, removal, the camera's log.
    const std::vector<uint8_t> card = {kPoll,    kShoot, kFileList, kDownload,  0,    kPreview,
                                       kPreview, kZoom,  5,         kFocus,     0x83, kPoll,
                                       kRemove,  0,      kCamLog,   kUpdateAeAf};
    // To the host: Direct Transfer on, two shots held in memory, one downloaded and removed.
    auto host = [&](const char* code) {
        return SetProperty(model(code), ORQ_PROP_DIRECT_TRANSFER, 0) +
               std::vector<uint8_t>{kShoot, kShoot, kDownload, 3, kRemove, 3, kFocus, 20};
    };
    const std::vector<uint8_t> video = {kVideoStart, kPoll, kVideoStop, kDownload, 2};
    // The cable goes, and the poll after it meets a closed device.
    const std::vector<uint8_t> unplug = {kUnplug, kPoll};

    bool ok = Record(folder, "SX160", "card", 0,
                     card + SetProperty(model("SX160"), ORQ_PROP_IMAGE_SIZE, 0) + unplug);
    ok &= Record(folder, "SX160", "host-memlog", 1, host("SX160") + unplug);
    ok &= Record(folder, "G15", "card", 0, card + unplug);
    ok &= Record(folder, "A810", "card", 2, card + unplug);
    ok &= Record(folder, "A810", "video", 0, video + host("A810") + unplug);
    // Every event read answered with a data phase of the right shape and a mutated word, which
    // takes the camera's bits with it: the shots end by a look at the card.
    ok &= Record(
        folder, "SX510", "garbled-events", 0, std::vector<uint8_t>{kShoot, kPoll, kShoot} + unplug,
        [](orqsim::VirtualCamera& camera) {
            orqsim::Bytes reply = {28, 0, 0,    0,    2, 0, 0x99, 0x99, 0, 0, 0, 0, 0x10, 0,
                                   0,  0, 0x99, 0x99, 0, 0, 7,    0,    0, 0, 0, 0, 0,    0,
                                   12, 0, 0,    0,    3, 0, 1,    0x20, 0, 0, 0, 0};
            orqsim::Fault fault = orqsim::Fault::Operation(orqsim::Fault::RawReply,
                                                           orq::PTP_OC_Vendor, orq::ORQM_GetEvents);
            fault.bytes = reply;
            fault.times = -1;
            camera.InjectFault(fault);
        });
    return ok ? 0 : 1;
}
