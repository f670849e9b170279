// What the virtual camera's pictures cost: a shot's size (paid when it is taken) and its bytes
// (paid when it is read), per picture size, and 64 cameras of a rig shooting at once, beside a
// plain libjpeg-turbo encode of the same picture.
//   picture_bench
#include <turbojpeg.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/Pictures.h"
#include "sim/VirtualCamera.h"

namespace {

double Ms(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

template <class F>
double Time(F f) {
    auto start = std::chrono::steady_clock::now();
    f();
    return Ms(std::chrono::steady_clock::now() - start);
}

orqsim::PictureLabel Label(uint32_t camera, uint32_t shot) {
    std::u16string serial = orqsim::SerialFor("SX160", camera);
    orqsim::PictureLabel label;
    label.model = "SX160";
    label.serial = std::string(serial.begin(), serial.end());
    label.shot = shot;
    label.time = 1764110000 + shot;
    return label;
}

}  // namespace

int main() {
    if (!orqsim::JpegPicturesBuilt()) {
        std::puts("no JPEG encoder in this build");
        return 0;
    }
    const int sizes[][2] = {{640, 480}, {1600, 1200}, {4608, 3456}};
    std::printf("%-11s %10s %10s %10s %10s %12s\n", "size", "first ms", "size ms", "bytes ms",
                "file KiB", "whole ms");
    for (const auto& wh : sizes) {
        const int w = wh[0], h = wh[1];
        const double first = Time([&] { orqsim::StillPicture(Label(1, 1), w, h); });
        const int n = 20;
        size_t bytes = 0;
        const double sized = Time([&] {
            for (int i = 0; i < n; ++i) orqsim::StillPictureSize(Label(2, 2 + i), w, h);
        });
        const double built = Time([&] {
            for (int i = 0; i < n; ++i) bytes = orqsim::StillPicture(Label(3, 2 + i), w, h).size();
        });
        // The same number of pixels through one plain encode, for reference.
        std::vector<unsigned char> rgb(static_cast<size_t>(w) * h * 3, 128);
        for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<unsigned char>(i * 7 / 3);
        std::unique_ptr<void, int (*)(tjhandle)> encoder(tjInitCompress(), tjDestroy);
        const double whole = Time([&] {
            unsigned char* out = nullptr;
            unsigned long size = 0;
            tjCompress2(encoder.get(), rgb.data(), w, 0, h, TJPF_RGB, &out, &size, TJSAMP_420, 90,
                        0);
            tjFree(out);
        });
        std::printf("%5dx%-5d %10.2f %10.2f %10.2f %10zu %12.2f\n", w, h, first, sized / n,
                    built / n, bytes / 1024, whole);
    }

    // A rig: 64 cameras each take one Large shot on two threads (what the card pays at the
    // shot), then every picture is read (what a download pays).
    const int cameras = 64;
    for (const char* phase : {"shot (size only)", "read (bytes)"}) {
        const bool read = phase[0] == 'r';
        const double ms = Time([&] {
            std::vector<std::thread> threads;
            for (int t = 0; t < 2; ++t) {
                threads.emplace_back([&, t] {
                    for (int c = t; c < cameras; c += 2) {
                        if (read)
                            orqsim::StillPicture(Label(100 + c, 1), 4608, 3456);
                        else
                            orqsim::StillPictureSize(Label(100 + c, 1), 4608, 3456);
                    }
                });
            }
            for (auto& thread : threads) thread.join();
        });
        std::printf("64 cameras, 4608x3456, %-17s %8.1f ms in all, %6.2f ms a camera\n", phase, ms,
                    ms / cameras);
    }
    return 0;
}
