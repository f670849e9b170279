// Throughput of the camera link against a virtual camera with zero latency: transactions per
// second through the retrying transaction, and the download of one large object beside a plain
// memcpy of the same bytes. Run by hand: link_bench [seconds per measure] [object megabytes].
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "SDKConfig.h"
#include "sim/VirtualBus.h"
#include "sim/VirtualCamera.h"

namespace {

using Clock = std::chrono::steady_clock;

struct QuietNotify : orq::IUsbLib_Notify {
    void OnDeviceChange() override {}
};

double Seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

// Runs body in batches until `budget` seconds have passed; returns calls per second.
template <class Body>
double Rate(double budget, Body body, int batch = 64) {
    uint64_t calls = 0;
    auto start = Clock::now();
    auto end = start + std::chrono::duration<double>(budget);
    while (Clock::now() < end) {
        for (int i = 0; i < batch; ++i) {
            if (!body()) {
                std::fprintf(stderr, "operation failed\n");
                std::exit(1);
            }
        }
        calls += batch;
    }
    return calls / Seconds(Clock::now() - start);
}

}  // namespace

int main(int argc, char** argv) {
    const double budget = argc > 1 ? std::atof(argv[1]) : 2.0;
    const size_t megabytes = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 10;
    const size_t objectSize = megabytes * 1000 * 1000;

    auto camera = std::make_shared<orqsim::VirtualCamera>();
    camera->SetRecordOperations(false);
    const std::u16string path = u"orqsim://bench/1";
    if (!camera->PlugIn(path)) return 1;
    QuietNotify notify;
    orq::SDKConfig config;
    auto usb = orqsim::CreateVirtualUsbLib(&notify);
    auto link = std::make_unique<orq::DeviceLL>(usb.get(), &config, path);
    if (link->OpenCamera() != ORQ_OK || link->PTPOpenSession() != ORQ_OK) {
        std::fprintf(stderr, "cannot open the virtual camera\n");
        return 1;
    }

    const double noData = Rate(budget, [&] {
        return link->PtpTransactionRetry(orq::PTP_OC_Vendor, {orq::ORQM_UpdateAEAF},
                                         orq::PTP_NO_DATA, nullptr, nullptr);
    });
    const double withData = Rate(budget, [&] {
        uint32_t mode = 0;
        return link->PTPGetMode(mode) == ORQ_OK;
    });

    const uint32_t handle = camera->AddFileOfSize(u"IMG_0100.JPG", objectSize);
    const orqsim::SharedBytes source = camera->FileBytes(handle);
    uint64_t checksum = 0;
    auto download = [&] {
        orq::PtpDataBlock block;
        if (link->PTPGetObject(handle, block) != ORQ_OK || block.size != objectSize) return false;
        checksum += block.data[objectSize / 2];
        return true;
    };
    const double downloads = Rate(budget / 2, download, 4);
    // The same bytes into a block allocated as the link allocates its own.
    const double copies = Rate(
        budget / 2,
        [&] {
            std::unique_ptr<uint8_t[]> block(new uint8_t[objectSize]);
            std::memcpy(block.get(), source->data(), objectSize);
            checksum += block[objectSize / 2];
            return true;
        },
        4);

    const double linkMBps = downloads * objectSize / 1e6;
    const double copyMBps = copies * objectSize / 1e6;
    std::printf("Zero latency\n");
    std::printf("  transactions, no data phase:     %10.0f /s\n", noData);
    std::printf("  transactions, 4-byte data phase: %10.0f /s\n", withData);
    std::printf("  GetObject %3zu MB:                %10.1f MB/s\n", megabytes, linkMBps);
    std::printf("  memcpy %3zu MB:                   %10.1f MB/s\n", megabytes, copyMBps);
    std::printf("  GetObject / memcpy:              %10.2f\n", linkMBps / copyMBps);

    // A USB 2.0 high-speed link: a microframe per transfer, about 35 MB/s of bulk payload.
    camera->SetLatency(std::chrono::microseconds(125), std::chrono::nanoseconds(28));
    const double slowTransactions = Rate(budget / 2, [&] {
        uint32_t mode = 0;
        return link->PTPGetMode(mode) == ORQ_OK;
    });
    const double slowDownloads = Rate(budget / 2, download, 1);
    std::printf("Modelled USB 2.0 (125 us per transfer, 28 ns per byte)\n");
    std::printf("  transactions, 4-byte data phase: %10.0f /s\n", slowTransactions);
    std::printf("  GetObject %3zu MB:                %10.1f MB/s\n", megabytes,
                slowDownloads * objectSize / 1e6);
    std::printf("(checksum %llu)\n", static_cast<unsigned long long>(checksum & 0xFF));

    link.reset();
    camera->Unplug();
    return 0;
}
