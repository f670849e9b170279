#include <algorithm>
#include <thread>

#include "CameraManager.h"
#include "tests/support/support.h"

using namespace orqtest;

TEST_F(SdkTest, StartStopAndStartAgain) {
    size_t start = LogSize();
    OrqTerminateSDK();
    auto lines = LogLinesSince(start);
    EXPECT_EQ(CountContaining(lines, "Terminate SDK"), 1);
    EXPECT_EQ(CountContaining(lines, "OrqTerminateSDK: CamMgr don't initialize"), 1);

    Start();
    EXPECT_EQ(OrqInitializeSDK(), ORQ_ERROR);
    EXPECT_TRUE(Cameras().empty());
    OrqFree(manager);
    manager = nullptr;
    OrqTerminateSDK();
    lines = LogLinesSince(start);
    EXPECT_EQ(CountContaining(lines, "Initilize SDK: 64 bit ver"), 1);
    EXPECT_EQ(CountContaining(lines, "CamMgr deleted"), 1);

    OrqSimAttachCamera("SX160");
    Start();
    EXPECT_EQ(Cameras().size(), 1u);
}

TEST_F(SdkTest, VersionAndNamesNeedNoStartedSdk) {
    OrqChar* version = nullptr;
    OrqGetSDKVersion(&version);
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(version)),
              u"" ORQSDK_VERSION_STRING);
    OrqChar* name = nullptr;
    EXPECT_EQ(OrqGetPropertyName(0, &name), ORQ_OK);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(name)), u"Shooting Mode");
    EXPECT_EQ(OrqGetPropertyName(12, &name), ORQ_ERROR);
}

TEST_F(SdkTest, NullAndStaleSessionsAreRefused) {
    EXPECT_EQ(OrqShoot(nullptr), ORQ_ERROR);
    EXPECT_EQ(OrqShootCompletedSubscribe(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(OrqIsVideoSupported(nullptr), 0);
    EXPECT_EQ(OrqGetCameraManager()->manager, nullptr);  // a cell, but of no SDK
    StartWithSession("A810");
    EXPECT_EQ(OrqIsVideoSupported(session), 1);
    int state = -1;
    EXPECT_EQ(OrqSetPreviewState(session, 2), ORQ_OK);
    EXPECT_EQ(OrqGetPreviewState(session, &state), ORQ_OK);
    EXPECT_EQ(state, 0);

    // Handles the SDK never issued, released ones, and those of a terminated SDK are answered
    // without being read (ASan sees a read of a freed one).
    OrqFileInfo* files = nullptr;
    int count = 0;
    ASSERT_EQ(OrqGetFileList(session, &files, &count), ORQ_OK);
    OrqSessionRecord forged{};
    const OrqSessionHandle kept = session;
    OrqSessionHandle strangers[] = {&forged, reinterpret_cast<OrqSessionHandle>(files), kept};
    OrqFree(session);
    session = nullptr;
    for (OrqSessionHandle stranger : strangers) {
        int zoom = -1;
        EXPECT_EQ(OrqGetZoom(stranger, &zoom), ORQ_ERROR);
        EXPECT_EQ(OrqShoot(stranger), ORQ_ERROR);
        EXPECT_EQ(OrqCameraErrorSubscribe(stranger, nullptr, nullptr), nullptr);
        EXPECT_EQ(OrqGetCameraConnectionState(stranger, &state), ORQ_OK);
        EXPECT_EQ(state, 1);
    }
    OrqResult results[1] = {ORQ_OK};
    EXPECT_EQ(OrqShootSynchronized(strangers, 1, results), ORQ_ERROR);
    OrqFree(files);
    OrqCameraManagerHandle cell = manager;
    OrqFree(manager);
    manager = nullptr;
    OrqCameraInfo* list = nullptr;
    EXPECT_EQ(OrqGetCameraList(cell, &list, &count), ORQ_ERROR);
    EXPECT_EQ(OrqOpenSession(cell, 0, &session), ORQ_ERROR);

    manager = OrqGetCameraManager();
    ASSERT_EQ(Cameras().size(), 1u);
    session = Open(Cameras()[0].id);
    OrqTerminateSDK();
    Start();
    EXPECT_EQ(OrqShoot(session), ORQ_ERROR);
    session = nullptr;
}

TEST_F(SdkTest, TerminationSweepsWhatTheApplicationKept) {
    // Swept entries stay listed and are reported again: what earlier tests left is the base.
    size_t start = 0;
    auto terminate = [&] {
        start = LogSize();
        OrqTerminateSDK();
        return CountContaining(LogLinesSince(start), "active free func:");
    };
    Start();
    const int before = terminate();
    OrqSimAttachCamera("SX160");
    Start();
    auto cameras = Cameras();
    ASSERT_EQ(cameras.size(), 1u);
    Recorder recorder;
    session = Open(cameras[0].id);
    OrqCameraErrorSubscribe(session, Recorder::OnCameraError, &recorder);
    OrqCameraInfo* list = nullptr;
    int count = 0;
    OrqGetCameraList(manager, &list, &count);
    // Left for the sweep: the manager, the session, the subscription and the list. Each may take
    // the address, and so the entry, of one that an earlier sweep left listed.
    const int after = terminate();
    EXPECT_GE(after, 4);
    EXPECT_GE(after, before);
    EXPECT_EQ(CountContaining(LogLinesSince(start), "Delete Event object with active subscribers!"),
              0);
    // Late releases after the sweep must be harmless.
    OrqFree(session);
    OrqFree(list);
    EXPECT_TRUE(recorder.cameraErrors.empty());
}

namespace {
// Shows frames to a callback that reads each through its session, slowly.
struct Viewer {
    OrqSessionHandle session = nullptr;
    std::atomic<int> inside{0};
    static void OnFrame(void* self) {
        auto* viewer = static_cast<Viewer*>(self);
        ++viewer->inside;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        void* frame = nullptr;
        int size = 0;
        if (OrqGetPreviewFrame(viewer->session, &frame, &size) == ORQ_OK) OrqFree(frame);
        --viewer->inside;
    }
};
}  // namespace

TEST_F(SdkTest, TerminationWaitsForCallbacksButNotForHangingOrTricklingCameras) {
    std::vector<std::shared_ptr<orqsim::VirtualCamera>> cameras;
    for (int i = 0; i < 9; ++i) cameras.push_back(Plug());
    Start();
    Viewer viewer;
    viewer.session = Open(cameras[0]);
    OrqNewPreviewFrameSubscribe(viewer.session, Viewer::OnFrame, &viewer);
    OrqSetPreviewState(viewer.session, 1);
    // Eight cameras are in the middle of a read that stalls, or that gets a byte at a time.
    for (size_t i = 1; i < cameras.size(); ++i) {
        Fault fault =
            Fault::Transfer(i % 2 ? Fault::TransferStall : Fault::TransferShort, Pipe::In, 1, 1);
        fault.times = -1;
        cameras[i]->InjectFault(fault);
        if (i % 2 == 0) cameras[i]->SetLatency(std::chrono::microseconds(20000), {});
        OrqUpdateAEAF(Open(cameras[i]));
    }
    ASSERT_TRUE(WaitFor([&] { return viewer.inside > 0; }));
    OrqFree(manager);
    manager = nullptr;  // sessions and subscriptions are left for the sweep
    auto start = std::chrono::steady_clock::now();
    OrqTerminateSDK();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(viewer.inside, 0);
}
