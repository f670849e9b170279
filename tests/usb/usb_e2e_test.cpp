// The production library end to end on emulated USB: virtual cameras behind umockdev devices,
// reached through libusb and the backend, driven through the C API only.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "orqsdk.h"
#include "sim/VirtualCamera.h"
#include "tests/usb/EmulatedUsb.h"

namespace orqtest {
namespace {

using namespace std::chrono_literals;
using orqsim::VirtualCamera;

bool Eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) std::this_thread::sleep_for(10ms);
    return condition();
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
    std::vector<std::pair<std::u16string, int>> initErrors;   // path, result
    std::vector<int> cameraErrors;

    static void OnList(void* self, OrqCameraInfo* info, int state) {
        static_cast<Events*>(self)->Add(&Events::listChanges, {info->path, state});
        OrqFree(info);
    }
    static void OnInitError(void* self, int result, OrqChar* path) {
        static_cast<Events*>(self)->Add(&Events::initErrors, {path, result});
        OrqFree(path);
    }
    static void OnCameraError(void* self, OrqResult result) {
        static_cast<Events*>(self)->Add(&Events::cameraErrors, static_cast<int>(result));
    }
    template <class T>
    void Add(std::vector<T> Events::*list, T value) {
        std::lock_guard<std::mutex> guard(lock);
        (this->*list).push_back(std::move(value));
    }
    template <class T>
    std::vector<T> Get(std::vector<T> Events::*list) {
        std::lock_guard<std::mutex> guard(lock);
        return this->*list;
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
        subscriptions.push_back(OrqCameraListChangedSubscribe(manager, &Events::OnList, &events));
        subscriptions.push_back(
            OrqCameraInitializationErrorSubscribe(manager, &Events::OnInitError, &events));
    }
    // The SDK (and with it the last libusb context) goes before the emulated bus.
    void TearDown() override {
        if (!started) return;
        for (OrqSubscription subscription : subscriptions) OrqFree(subscription);
        for (OrqSessionHandle session : sessions) OrqFree(session);
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
    std::vector<OrqSubscription> subscriptions;
    std::vector<OrqSessionHandle> sessions;
};

TEST_F(UsbEndToEnd, CamerasAtStartAndLaterAreListedAndAnswerABusyOneFailsItsStart) {
    auto g15 = MakeCamera("G15");
    std::u16string first = bus.Plug(g15);
    Start();
    std::vector<OrqCameraInfo> cameras = Cameras();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(std::u16string(cameras[0].path), first);
    EXPECT_EQ(std::u16string(cameras[0].serial), g15->Options().serialNumber);

    EmulatedDeviceOptions held;
    held.holder = EmulatedDeviceOptions::Holder::OtherProgram;
    std::u16string busy = bus.Plug(MakeCamera("SX160"), held);
    std::u16string second = bus.Plug(MakeCamera("SX160"));
    ASSERT_TRUE(Eventually([&] {
        return !events.Get(&Events::listChanges).empty() &&
               !events.Get(&Events::initErrors).empty();
    }));
    EXPECT_EQ(events.Get(&Events::listChanges), (decltype(events.listChanges){{second, 0}}));
    EXPECT_EQ(events.Get(&Events::initErrors), (decltype(events.initErrors){{busy, ORQ_ERROR}}));
    EXPECT_EQ(Cameras().size(), 2u);

    // Property 15 of the G15 goes to the camera as property case 188.
    OrqSessionHandle session = Open(first);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(OrqSetPropertyData(session, 15, 11), ORQ_OK);
    EXPECT_TRUE(Eventually([&] { return g15->PropCase(188) == 11; }));
    int value = -1;
    EXPECT_EQ(OrqGetPropertyData(session, 15, &value), ORQ_OK);
    EXPECT_EQ(value, 11);
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
    subscriptions.push_back(OrqCameraErrorSubscribe(session, &Events::OnCameraError, &events));
    OrqFileInfo* files = nullptr;
    int count = 0;
    ASSERT_EQ(OrqGetFileList(session, &files, &count), ORQ_OK);
    ASSERT_EQ(count, 1);
    const int file = files[0].id;
    OrqFree(files);

    const int submits = bus.Stats(path).bulkSubmits;
    ASSERT_EQ(OrqDownloadFile(session, file, 0), ORQ_OK);
    ASSERT_TRUE(Eventually([&] { return bus.Stats(path).bulkSubmits > submits + 3; }));
    std::this_thread::sleep_for(300ms);
    bus.Unplug(path);

    ASSERT_TRUE(Eventually([&] { return !events.Get(&Events::cameraErrors).empty(); }));
    EXPECT_EQ(events.Get(&Events::cameraErrors), std::vector<int>{ORQ_DISCONNECTED});
    int state = -1;
    EXPECT_EQ(OrqGetCameraConnectionState(session, &state), ORQ_OK);
    EXPECT_EQ(state, 1);
    EXPECT_EQ(OrqShoot(session), ORQ_DISCONNECTED);
}

}  // namespace
}  // namespace orqtest
