// Round trips and bulk-in throughput through the libusb backend on an emulated USB device,
// beside the same through the in-process virtual transport, so that the cost of the backend
// (libusb, usbfs requests and their emulation) shows against the SDK's own.
//
//   usb_bench [seconds per measurement, default 2]
//
// Run it with TMPDIR in a writable folder (umockdev's testbed goes there).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Kernel/UsbLib.h"
#include "sim/VirtualBus.h"
#include "tests/usb/EmulatedUsb.h"
#include "tests/usb/ScriptedEndpoint.h"

namespace orq {
std::unique_ptr<UsbLib> CreateUsbLib_LibUsb(IUsbLib_Notify* notify, bool useHotplug);
}  // namespace orq

namespace {

using Clock = std::chrono::steady_clock;

struct Quiet : orq::IUsbLib_Notify {
    void OnDeviceChange() override {}
};

struct Result {
    double roundTripsPerSecond = 0;
    double microsecondsPerRoundTrip = 0;
    double megabytesPerSecond = 0;
};

// Repeats work until `seconds` have passed; returns how often it ran and the time taken.
std::pair<long, double> Repeat(double seconds, const std::function<bool()>& work) {
    long count = 0;
    auto start = Clock::now();
    double elapsed = 0;
    while (elapsed < seconds) {
        if (!work()) {
            std::fprintf(stderr, "transfer failed\n");
            std::exit(1);
        }
        ++count;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    }
    return {count, elapsed};
}

// A command of 12 bytes out and back (the size of a PTP command without parameters), and
// 8 MiB reads of a reply the device has ready.
Result Measure(orq::UsbLib& usb, const std::u16string& path, orqtest::ScriptedEndpoint& endpoint,
               double seconds) {
    orq::UsbDevice* device = usb.OpenDevice(path);
    if (!device) {
        std::fprintf(stderr, "open failed\n");
        std::exit(1);
    }
    Result result;
    std::vector<uint8_t> command(12, 0x5A), reply(12);
    auto trips = Repeat(seconds, [&] {
        return usb.UsbWrite({command.data(), command.size()}, device) &&
               usb.UsbReadExactly({reply.data(), reply.size()}, device);
    });
    result.roundTripsPerSecond = trips.first / trips.second;
    result.microsecondsPerRoundTrip = trips.second * 1e6 / trips.first;

    constexpr size_t kBlock = 8 << 20;
    std::vector<uint8_t> block(kBlock);
    auto reads = Repeat(seconds, [&] {
        endpoint.QueueIn(std::vector<uint8_t>(kBlock, 0xA5));
        return usb.UsbReadExactly({block.data(), block.size()}, device);
    });
    result.megabytesPerSecond = reads.first * (kBlock / 1e6) / reads.second;
    usb.CloseDevice(device);
    return result;
}

void Print(const char* name, const Result& result) {
    std::printf("%-34s %10.0f /s %10.1f us %10.1f MB/s\n", name, result.roundTripsPerSecond,
                result.microsecondsPerRoundTrip, result.megabytesPerSecond);
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    if (seconds <= 0) seconds = 2.0;
    Quiet quiet;
    std::printf("%-34s %13s %13s %15s\n", "transport", "round trips", "per trip", "bulk-in");

    auto virtualEndpoint = std::make_shared<orqtest::ScriptedEndpoint>(u"Bench", true);
    orqsim::VirtualBus::Instance().Attach(u"bench", virtualEndpoint);
    {
        auto usb = orqsim::CreateVirtualUsbLib(&quiet);
        Print("in-process virtual transport", Measure(*usb, u"bench", *virtualEndpoint, seconds));
    }
    orqsim::VirtualBus::Instance().DetachAll();

    orqtest::EmulatedUsbBus bus;
    auto endpoint = std::make_shared<orqtest::ScriptedEndpoint>(u"Bench", true);
    std::u16string path = bus.Plug(endpoint);
    {
        auto usb = orq::CreateUsbLib_LibUsb(&quiet, true);
        Print("libusb backend, emulated device", Measure(*usb, path, *endpoint, seconds));
    }
    return 0;
}
