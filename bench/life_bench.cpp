// Lifetimes, measured by hand: how long termination takes with eight cameras stalled or
// trickling in mid-transfer, and how the resident memory grows over many plug and unplug
// cycles. Run: life_bench [plug cycles]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "orqsdk.h"
#include "orqsdk_sim.h"

namespace {

using Clock = std::chrono::steady_clock;

long ResidentKiB() {
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(statm);
    }
    return resident * 4;
}

int Listed(OrqCameraManagerHandle manager) {
    OrqCameraInfo* list = nullptr;
    int count = 0;
    OrqGetCameraList(manager, &list, &count);
    OrqFree(list);
    return count;
}

bool WaitListed(OrqCameraManagerHandle manager, int count) {
    auto deadline = Clock::now() + std::chrono::seconds(10);
    while (Listed(manager) != count) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Eight cameras, each with an open session and a request in flight that stalls, or that gets
// one byte per transfer every 20 ms; returns the milliseconds OrqTerminateSDK took.
double TerminationMs(bool trickle) {
    std::vector<OrqSimCamera> cameras;
    for (int i = 0; i < 8; ++i) cameras.push_back(OrqSimAttachCamera("SX160"));
    if (OrqInitializeSDK() != ORQ_OK) return -1;
    OrqCameraManagerHandle manager = OrqGetCameraManager();
    OrqCameraInfo* list = nullptr;
    int count = 0;
    OrqGetCameraList(manager, &list, &count);
    for (OrqSimCamera camera : cameras) {
        OrqSimFault fault{};
        fault.kind = trickle ? ORQSIM_TRANSFER_SHORT : ORQSIM_TRANSFER_STALL;
        fault.pipe = ORQSIM_BULK_IN;
        fault.times = -1;
        fault.value = 1;
        OrqSimInjectFault(camera, &fault);
        if (trickle) OrqSimSetLatency(camera, 20000, 0);
    }
    for (int i = 0; i < count; ++i) {
        OrqSessionHandle session = nullptr;
        OrqOpenSession(manager, static_cast<int>(list[i].id), &session);
        OrqUpdateAEAF(session);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto start = Clock::now();
    OrqTerminateSDK();
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    OrqSimRemoveAll();
    return ms;
}

}  // namespace

int main(int argc, char** argv) {
    const int cycles = argc > 1 ? std::atoi(argv[1]) : 1000;
    std::printf("termination, 8 stalled cameras:   %8.1f ms\n", TerminationMs(false));
    std::printf("termination, 8 trickling cameras: %8.1f ms\n", TerminationMs(true));

    if (OrqInitializeSDK() != ORQ_OK) return 1;
    OrqCameraManagerHandle manager = OrqGetCameraManager();
    long before = 0;
    const int warmUp = cycles / 10;
    for (int i = 0; i < warmUp + cycles; ++i) {
        if (i == warmUp) before = ResidentKiB();
        OrqSimCamera camera = OrqSimAttachCamera("SX160");
        if (!WaitListed(manager, 1)) return 1;
        OrqSimRemoveCamera(camera);
        if (!WaitListed(manager, 0)) return 1;
    }
    long after = ResidentKiB();
    std::printf(
        "resident memory over %d plug cycles: %ld KiB -> %ld KiB (%+ld KiB, %+.2f KiB a plug)\n",
        cycles, before, after, after - before, double(after - before) / cycles);
    OrqFree(manager);
    OrqTerminateSDK();
    return 0;
}
