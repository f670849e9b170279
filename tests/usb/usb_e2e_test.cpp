// The production library end to end on emulated USB: virtual cameras behind umockdev devices,
// reached through libusb and the backend, driven through the C API only.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

#include "orqsdk.h"
#include "sim/VirtualCamera.h"
#include "tests/usb/EmulatedUsb.h"

namespace orqtest {
namespace {

using namespace std::chrono_literals;
using orqsim::VirtualCamera;

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
    for (auto end = std::chrono::steady_clock::now() + limit;
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(10ms)) {
        if (condition()) return true;
    }
    return condition();
}

std::string MainLog() {
    const char* folder = std::getenv("XDG_STATE_HOME");
    std::ifstream file(std::string(folder ? folder : ".") + "/orqdll.log");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::shared_ptr<VirtualCamera> MakeCamera(const std::string& model) {
    orqsim::CameraOptions options;
    options.model = model;
    auto camera = std::make_shared<VirtualCamera>(options);
    camera->SetModeWheel(32769);  // manual: every property of the model is on offer
    return camera;
}

// What the SDK raised, for the test thread to wait on.
struct Events {
    std::mutex lock;
    std::vector<std::pair<std::u16string, int>> listChanges;  // path, state
    std::vector<int> initErrors;
    std::vector<std::u16string> initErrorPaths;
    std::vector<int> cameraErrors;

    static void OnList(void* self, OrqCameraInfo* info, int state) {
        auto* events = static_cast<Events*>(self);
        std::lock_guard<std::mutex> guard(events->lock);
        events->listChanges.emplace_back(info->path, state);
        OrqFree(info);
    }
    static void OnInitError(void* self, int result, OrqChar* path) {
        auto* events = static_cast<Events*>(self);
        std::lock_guard<std::mutex> guard(events->lock);
        events->initErrors.push_back(result);
        events->initErrorPaths.emplace_back(path);
        OrqFree(path);
    }
    static void OnCameraError(void* self, OrqResult result) {
        auto* events = static_cast<Events*>(self);
        std::lock_guard<std::mutex> guard(events->lock);
        events->cameraErrors.push_back(result);
    }
    template <class F>
    auto Read(F f) {
        std::lock_guard<std::mutex> guard(lock);
        return f(*this);
    }
};

class UsbEndToEnd : public ::testing::Test {
protected:
    void Start() {
        // Another program on this machine may hold the SDK for a while (a developer's tests).
        OrqResult result = OrqInitializeSDK();
        for (int i = 0; i < 600 && result == ORQ_SECOND_PROCESS; ++i) {
            std::this_thread::sleep_for(200ms);
            result = OrqInitializeSDK();
        }
        ASSERT_EQ(result, ORQ_OK);
        started = true;
        manager = OrqGetCameraManager();
        listSubscription = OrqCameraListChangedSubscribe(manager, &Events::OnList, &events);
        errorSubscription =
            OrqCameraInitializationErrorSubscribe(manager, &Events::OnInitError, &events);
    }
    // The SDK (and with it the last libusb context) goes before the emulated bus.
    void TearDown() override {
        if (!started) return;
        for (OrqSessionHandle session : sessions) OrqFree(session);
        OrqFree(listSubscription);
        OrqFree(errorSubscription);
        OrqFree(manager);
        OrqTerminateSDK();
    }

    std::vector<OrqCameraInfo> Cameras() {
        OrqCameraInfo* list = nullptr;
        int count = 0;
        EXPECT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
        std::vector<OrqCameraInfo> cameras(list, list + std::max(count, 0));
        if (list) OrqFree(list);
        return cameras;
    }
    OrqSessionHandle Open(const std::u16string& path) {
        for (const OrqCameraInfo& info : Cameras()) {
            if (path != info.path) continue;
            OrqSessionHandle session = nullptr;
            EXPECT_EQ(OrqOpenSession(manager, static_cast<int>(info.id), &session), ORQ_OK);
            if (session) sessions.push_back(session);
            return session;
        }
        ADD_FAILURE() << "no camera listed at that path";
        return nullptr;
    }

    EmulatedUsbBus bus;
    Events events;
    bool started = false;
    OrqCameraManagerHandle manager = nullptr;
    OrqSubscription listSubscription = nullptr;
    OrqSubscription errorSubscription = nullptr;
    std::vector<OrqSessionHandle> sessions;
};

TEST_F(UsbEndToEnd, CamerasAtStartAndLaterAreListedAndAnswer) {
    auto g15 = MakeCamera("G15");
    std::u16string first = bus.Plug(g15);
    EmulatedDeviceOptions vendor;
    vendor.interfaceClass = 0xFF;  // same pipes, not a still-image interface
    bus.Plug(MakeCamera("SX160"), vendor);
    Start();

    std::vector<OrqCameraInfo> cameras = Cameras();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(std::u16string(cameras[0].path), first);
    EXPECT_EQ(std::u16string(cameras[0].serial), g15->Options().serialNumber);

    std::u16string second = bus.Plug(MakeCamera("SX160"));
    ASSERT_TRUE(Eventually(
        [&] { return events.Read([](Events& e) { return e.listChanges.size(); }) == 1; }));
    EXPECT_EQ(events.Read([](Events& e) { return e.listChanges[0]; }), std::make_pair(second, 0));
    EXPECT_EQ(Cameras().size(), 2u);

    OrqSessionHandle session = Open(first);
    ASSERT_NE(session, nullptr);
    int* list = nullptr;
    int count = 0;
    ASSERT_EQ(OrqGetPropertyList(session, &list, &count), ORQ_OK);
    ASSERT_GT(count, 0);
    for (int i = 0; i < count; ++i) {
        int value = -1;
        EXPECT_EQ(OrqGetPropertyData(session, list[i], &value), ORQ_OK) << list[i];
    }
    OrqFree(list);

    // Property 15 of the G15 goes to the camera as property case 188.
    EXPECT_EQ(OrqSetPropertyData(session, 15, 11), ORQ_OK);
    EXPECT_TRUE(Eventually([&] { return g15->PropCase(188) == 11; }));
    int value = -1;
    EXPECT_EQ(OrqGetPropertyData(session, 15, &value), ORQ_OK);
    EXPECT_EQ(value, 11);
    EXPECT_TRUE(events.Read([](Events& e) { return e.initErrors.empty(); }));
}

TEST_F(UsbEndToEnd, UnplugDuringADownloadEndsTheCameraAsDisconnected) {
    auto camera = MakeCamera("SX160");
    // Slow enough that the pull lands inside the transfer: about 4 s for the file.
    camera->SetLatency(0ns, 100ns);
    camera->AddFileOfSize(u"IMG_0100.JPG", 40u << 20);
    std::u16string path = bus.Plug(camera);
    Start();
    OrqSessionHandle session = Open(path);
    ASSERT_NE(session, nullptr);
    OrqSubscription errors = OrqCameraErrorSubscribe(session, &Events::OnCameraError, &events);

    OrqFileInfo* files = nullptr;
    int count = 0;
    ASSERT_EQ(OrqGetFileList(session, &files, &count), ORQ_OK);
    ASSERT_EQ(count, 1);
    int file = files[0].id;
    OrqFree(files);

    int submits = bus.Stats(path).bulkSubmits;
    ASSERT_EQ(OrqDownloadFile(session, file, 0), ORQ_OK);
    ASSERT_TRUE(Eventually([&] { return bus.Stats(path).bulkSubmits > submits + 3; }));
    std::this_thread::sleep_for(300ms);
    bus.Unplug(path);

    ASSERT_TRUE(Eventually(
        [&] { return events.Read([](Events& e) { return e.cameraErrors.size(); }) == 1; }));
    EXPECT_EQ(events.Read([](Events& e) { return e.cameraErrors[0]; }), ORQ_DISCONNECTED);
    int state = -1;
    EXPECT_EQ(OrqGetCameraConnectionState(session, &state), ORQ_OK);
    EXPECT_EQ(state, 1);
    EXPECT_EQ(OrqShoot(session), ORQ_DISCONNECTED);
    OrqFree(errors);
}

TEST_F(UsbEndToEnd, BusyCameraFailsItsStartCleanly) {
    Start();
    EmulatedDeviceOptions held;
    held.holder = EmulatedDeviceOptions::Holder::OtherProgram;
    std::u16string path = bus.Plug(MakeCamera("SX160"), held);
    ASSERT_TRUE(Eventually(
        [&] { return events.Read([](Events& e) { return e.initErrors.size(); }) == 1; }));
    EXPECT_EQ(events.Read([](Events& e) { return e.initErrors[0]; }), ORQ_ERROR);
    EXPECT_EQ(events.Read([](Events& e) { return e.initErrorPaths[0]; }), path);
    EXPECT_TRUE(Cameras().empty());
    EXPECT_NE(MainLog().find("is busy: another program holds it"), std::string::npos);
    EXPECT_EQ(bus.Stats(path).claims, 0);
}

}  // namespace
}  // namespace orqtest
