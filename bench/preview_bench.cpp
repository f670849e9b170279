// Cost of a preview frame: the pixel conversion alone at common live-view sizes, beside the
// literal per-pixel form, and a whole frame (settings, memory read, conversion) from a virtual
// camera with zero latency. Run by hand: preview_bench [seconds per measure].
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "Kernel/PreviewFrame.h"
#include "SDKConfig.h"
#include "bench/preview_reference.h"
#include "sim/VirtualBus.h"
#include "sim/VirtualCamera.h"

namespace {

using Clock = std::chrono::steady_clock;

struct QuietNotify : orq::IUsbLib_Notify {
    void OnDeviceChange() override {}
};

// Microseconds per call, over batches until `budget` seconds have passed.
template <class Body>
double MicrosPerCall(double budget, Body body) {
    uint64_t calls = 0;
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration<double>(budget);
    while (Clock::now() < end) {
        for (int i = 0; i < 8; ++i) body();
        calls += 8;
    }
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / calls;
}

void Conversion(double budget, uint32_t width, uint32_t height) {
    orq::preview::FrameGeometry g;
    if (!orq::preview::ComputeGeometry(width, height, g)) std::exit(1);
    std::mt19937 random(1);
    std::vector<uint8_t> source(g.groupsPerRow * 6 * height);
    for (auto& b : source) b = static_cast<uint8_t>(random());
    std::vector<int32_t> map;
    std::vector<uint8_t> image(g.Allocation());
    const double fast = MicrosPerCall(budget, [&] {
        orq::preview::BuildColumnMap(g, map);
        orq::preview::ConvertPixels(source.data(), source.size(), g, map.data(),
                                    image.data() + orq::preview::kBmpHeaderSize);
        orq::preview::WriteBmpHeader(image.data(), g);
    });
    const double literal = MicrosPerCall(budget / 2, [&] {
        auto copy = orqbench::Reference(source, int(width), int(height));
        if (copy.size() != image.size()) std::exit(1);
    });
    const double pixels = double(width) * height;
    std::printf(
        "convert %4ux%-4u -> %4dx%-4u  %8.1f us/frame  %5.2f ns/pixel  literal %8.1f us  x%.1f\n",
        width, height, g.outWidth, height, fast, fast * 1000 / pixels, literal, literal / fast);
}

void WholeFrame(double budget, uint32_t width, uint32_t height) {
    const std::u16string path = u"orqsim://bench/preview";
    auto camera = std::make_shared<orqsim::VirtualCamera>();
    std::array<uint32_t, 22> settings{};
    settings[1] = width;
    settings[2] = height;
    camera->SetVideoSettings(settings);
    camera->SetRecordOperations(false);
    if (!camera->PlugIn(path)) std::exit(1);
    QuietNotify notify;
    orq::SDKConfig config;
    auto usb = orqsim::CreateVirtualUsbLib(&notify);
    {
        orq::DeviceLL device(usb.get(), &config, path);
        if (device.OpenCamera() != ORQ_OK || device.PTPOpenSession() != ORQ_OK) std::exit(1);
        const double micros = MicrosPerCall(budget, [&] {
            if (device.UpdatePreviewFrame() != ORQ_OK) std::exit(1);
        });
        std::printf("frame   %4ux%-4u from the virtual camera  %8.1f us/frame  (%.0f frames/s)\n",
                    width, height, micros, 1e6 / micros);
    }
    camera->Unplug();
}

}  // namespace

int main(int argc, char** argv) {
    const double budget = argc > 1 ? std::atof(argv[1]) : 1.0;
    Conversion(budget, 320, 240);
    Conversion(budget, 360, 240);
    Conversion(budget, 720, 240);
    Conversion(budget, 704, 528);
    Conversion(budget, 1920, 1080);
    WholeFrame(budget, 360, 240);
    WholeFrame(budget, 720, 480);
    return 0;
}
