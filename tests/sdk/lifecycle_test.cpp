#include "sdk_fixture.h"

using namespace orqtest;

TEST_F(SdkTest, StartStopAndStartAgain) {
    size_t start = MainLogSize();
    OrqTerminateSDK();
    auto lines = MainLogSince(start);
    EXPECT_EQ(CountContaining(lines, "Terminate SDK"), 1);
    EXPECT_EQ(CountContaining(lines, "OrqTerminateSDK: CamMgr don't initialize"), 1);

    Start();
    EXPECT_EQ(OrqInitializeSDK(), ORQ_ERROR);
    EXPECT_TRUE(Cameras().empty());
    OrqFree(manager);
    manager = nullptr;
    OrqTerminateSDK();
    lines = MainLogSince(start);
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
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(version)), u"1.1.0.4");
    OrqChar* name = nullptr;
    EXPECT_EQ(OrqGetPropertyName(0, &name), ORQ_OK);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(name)), u"Shooting Mode");
    EXPECT_EQ(OrqGetPropertyName(12, &name), ORQ_ERROR);
}

TEST_F(SdkTest, NullAndStaleSessionsAreRefused) {
    EXPECT_EQ(OrqShoot(nullptr), ORQ_ERROR);
    EXPECT_EQ(OrqShootCompletedSubscribe(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(OrqIsVideoSupported(nullptr), 0);
    OrqSimCamera camera = OrqSimAttachCamera("A810");
    Start();
    auto cameras = Cameras();
    ASSERT_EQ(cameras.size(), 1u);
    OrqSessionHandle session = Open(cameras[0].id);
    EXPECT_EQ(OrqIsVideoSupported(session), 1);
    int state = -1;
    EXPECT_EQ(OrqSetPreviewState(session, 2), ORQ_OK);
    EXPECT_EQ(OrqGetPreviewState(session, &state), ORQ_OK);
    EXPECT_EQ(state, 0);
    OrqFree(session);
    // The row goes with the camera once no session holds it.
    OrqSimRemoveCamera(camera);
    ASSERT_TRUE(WaitFor([&] { return Cameras().empty(); }));
}

TEST_F(SdkTest, TerminationSweepsWhatTheApplicationKept) {
    OrqSimAttachCamera("SX160");
    Start();
    auto cameras = Cameras();
    ASSERT_EQ(cameras.size(), 1u);
    Recorder recorder;
    OrqSessionHandle session = Open(cameras[0].id);
    OrqCameraErrorSubscribe(session, Recorder::OnCameraError, &recorder);
    OrqCameraInfo* list = nullptr;
    int count = 0;
    OrqGetCameraList(manager, &list, &count);
    size_t start = MainLogSize();
    manager = nullptr;  // left for the sweep, with the session, subscription and list
    OrqTerminateSDK();
    auto lines = MainLogSince(start);
    EXPECT_EQ(CountContaining(lines, "active free func:"), 4);
    EXPECT_EQ(CountContaining(lines, "Delete Event object with active subscribers!"), 0);
    // Late releases after the sweep must be harmless.
    OrqFree(session);
    OrqFree(list);
    EXPECT_TRUE(recorder.cameraErrors.empty());
}
