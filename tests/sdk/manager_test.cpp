#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "sim/VirtualCamera.h"
#include "tests/support/support.h"

using namespace orqtest;

namespace {
constexpr uint32_t kIdPattern = 0x0B15FC9A;
}

TEST_F(SdkTest, CamerasPresentAtStartAreListedWithoutEventsAndHotPlugRaisesOneChangeEach) {
    OrqSimAttachCamera("SX160");
    OrqSimAttachCamera("G15");
    Start();
    Recorder recorder;
    OrqSubscription subscription =
        OrqCameraListChangedSubscribe(manager, Recorder::OnCameraList, &recorder);
    auto cameras = Cameras();
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_EQ(cameras[0].id, 1u ^ kIdPattern);
    EXPECT_EQ(cameras[1].id, 2u ^ kIdPattern);
    EXPECT_EQ(recorder.Size(recorder.cameraChanges), 0u);
    OrqSimCamera camera = OrqSimAttachCamera("SX150");
    ASSERT_TRUE(recorder.Await(recorder.cameraChanges, 1));
    EXPECT_EQ(recorder.cameraChanges[0], std::make_pair(3u ^ kIdPattern, 0));
    OrqSimDetachCamera(camera);
    ASSERT_TRUE(recorder.Await(recorder.cameraChanges, 2));
    EXPECT_EQ(recorder.cameraChanges[1], std::make_pair(3u ^ kIdPattern, 1));
    EXPECT_EQ(Cameras().size(), 2u);
    OrqFree(subscription);
}

TEST_F(SdkTest, FailedStartUpIsReportedOnceUntilReplugged) {
    Start();
    Recorder recorder;
    OrqSubscription errors =
        OrqCameraInitializationErrorSubscribe(manager, Recorder::OnInitError, &recorder);
    OrqSimCamera unknown = OrqSimAttachCamera("XZ999");
    ASSERT_TRUE(recorder.Await(recorder.initErrors, 1));
    EXPECT_EQ(recorder.initErrors[0], ORQ_ERROR);
    EXPECT_TRUE(Cameras().empty());
    EXPECT_TRUE(Cameras().empty());
    EXPECT_EQ(recorder.Size(recorder.initErrors), 1u);
    OrqSimDetachCamera(unknown);
    EXPECT_TRUE(Cameras().empty());
    OrqSimReattachCamera(unknown);
    ASSERT_TRUE(recorder.Await(recorder.initErrors, 2));
    OrqFree(errors);
}

TEST_F(SdkTest, SessionsClaimARowAndKeepItAfterUnplug) {
    OrqSimCamera camera = OrqSimAttachCamera("SX160");
    Start();
    auto cameras = Cameras();
    ASSERT_EQ(cameras.size(), 1u);
    OrqSessionHandle wrong = nullptr;
    EXPECT_EQ(OrqOpenSession(manager, static_cast<int>(cameras[0].id ^ 1), &wrong),
              ORQ_DEVICE_NOT_READY);
    session = Open(cameras[0].id);
    OrqSessionHandle second = reinterpret_cast<OrqSessionHandle>(&wrong);
    EXPECT_EQ(OrqOpenSession(manager, static_cast<int>(cameras[0].id), &second), ORQ_SESSION_BUSY);
    EXPECT_EQ(second, nullptr);

    Recorder recorder;
    OrqSubscription errors = OrqCameraErrorSubscribe(session, Recorder::OnCameraError, &recorder);
    OrqSimDetachCamera(camera);
    int state = -1;
    ASSERT_TRUE(WaitFor([&] {
        OrqGetCameraConnectionState(session, &state);
        return state == 1;
    }));
    EXPECT_EQ(Cameras().size(), 1u);  // kept for the open session
    int value = 0;
    OrqResult refused = OrqGetPropertyData(session, 0, &value);
    EXPECT_TRUE(refused == ORQ_DEVICE_NOT_READY || refused == ORQ_ERROR ||
                refused == ORQ_DISCONNECTED)
        << refused;
    // The camera's loop ends on its next poll, seen as a disconnection.
    ASSERT_TRUE(recorder.Await(recorder.cameraErrors, 1, 6000));
    EXPECT_EQ(recorder.cameraErrors[0], ORQ_DISCONNECTED);
    EXPECT_EQ(OrqShoot(session), ORQ_DISCONNECTED);

    // Same path back while the session is open: no new camera until the session is freed;
    // then the old row goes and the path starts as a new camera.
    OrqSimReattachCamera(camera);
    EXPECT_EQ(Cameras().size(), 1u);
    OrqFree(errors);
    OrqFree(session);
    ASSERT_TRUE(WaitFor([&] {
        auto now = Cameras();
        return now.size() == 1 && now[0].id != cameras[0].id;
    }));
    OrqFree(Open(Cameras()[0].id));
    // Once the camera is gone for good, nothing of it is kept.
    OrqSimRemoveCamera(camera);
    EXPECT_TRUE(WaitFor([&] { return Cameras().empty(); }));
    EXPECT_TRUE(WaitFor([] { return orqsim::VirtualCamera::Alive() == 0; }));
}

TEST_F(SdkTest, ACameraLeftInPlayModeHoldsUpNoOtherCallAndFailsInTheEnd) {
    OrqSimAttachCamera("SX160");
    OrqSimCamera playing = OrqSimAttachCamera("G15");
    OrqSimDetachCamera(playing);
    OrqSimSetCameraMode(playing, 0);
    Start();
    Recorder recorder;
    OrqSubscription errors =
        OrqCameraInitializationErrorSubscribe(manager, Recorder::OnInitError, &recorder);
    session = Open(Cameras().at(0).id);
    OrqSimReattachCamera(playing);
    ASSERT_TRUE(WaitFor([&] { return OrqSimCountOperations(playing, 0x9999, 150) > 2; }));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Cameras().size(), 1u);
    int value = -1;
    EXPECT_EQ(OrqGetPropertyData(session, 0, &value), ORQ_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    ASSERT_TRUE(recorder.Await(recorder.initErrors, 1, 12000));
    EXPECT_EQ(recorder.initErrors.at(0), ORQ_ERROR);
    EXPECT_LT(OrqSimCountOperations(playing, 0x9999, 150), 120) << "asked at a pace";
    EXPECT_EQ(Cameras().size(), 1u);
    OrqFree(errors);
    OrqFree(session);
}

// Start-up clears img_ numbers from 10 up off the card, but only behind a copy on the host that
// reads back equal; an older copy of the same name is kept, and without a copy the card keeps it.
TEST_F(SdkTest, CardCleanUpRemovesOnlyWhatTheHostHoldsACopyOf) {
    namespace fs = std::filesystem;
    const fs::path kept = fs::path(orq::MainLogPath()).parent_path() / "orqsdk-card-cleanup";
    fs::remove_all(kept);
    auto put = [](OrqSimCamera camera, const char16_t* name, const std::string& data) {
        return OrqSimAddFile(camera, reinterpret_cast<const OrqChar*>(name), data.data(),
                             static_cast<uint32_t>(data.size()));
    };
    auto read = [](const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    OrqSimCamera camera = OrqSimAttachCamera("SX160");
    put(camera, u"img_0009.jpg", "nine");
    put(camera, u"img_0010.jpg", "ten");
    put(camera, u"IMG_0012.JPG", "twelve");
    put(camera, u"img_12x.jpg", "twelve-x");
    int before = OrqSimGetFileCount(camera);
    logStart = LogSize();
    Start();
    ASSERT_EQ(Cameras().size(), 1u);
    EXPECT_EQ(OrqSimGetFileCount(camera), before - 3 + 1);  // and the camera's log, img_0002
    // A reader counts one "clean file: " line per removed file; the copies have lines of their own.
    const auto startingWith = [](const Strings& messages, const std::string& head) {
        return std::count_if(messages.begin(), messages.end(),
                             [&](const std::string& m) { return m.rfind(head, 0) == 0; });
    };
    EXPECT_EQ(startingWith(MessagesSince(logStart), "clean file: "), 3);
    EXPECT_EQ(startingWith(MessagesSince(logStart), "kept copy of card file: "), 3);
    ASSERT_EQ(std::distance(fs::directory_iterator(kept), fs::directory_iterator()), 1);
    const fs::path folder = fs::directory_iterator(kept)->path();
    EXPECT_EQ(read(folder / "img_0010.jpg"), "ten");
    EXPECT_EQ(read(folder / "IMG_0012.JPG"), "twelve");
    EXPECT_EQ(read(folder / "img_12x.jpg"), "twelve-x");
    EXPECT_FALSE(fs::exists(folder / "img_0009.jpg"));

    // Plugged again with a new picture of an old name: the first copy stays as it was.
    OrqTerminateSDK();
    put(camera, u"img_0010.jpg", "ten again");
    Start();
    ASSERT_EQ(Cameras().size(), 1u);
    EXPECT_EQ(read(folder / "img_0010.jpg"), "ten");
    EXPECT_EQ(read(folder / "1-img_0010.jpg"), "ten again");

    // No folder for the copy: the picture stays on the card.
    OrqTerminateSDK();
    fs::remove_all(kept);
    std::ofstream(kept.string()) << "a file where the folder would go";
    put(camera, u"img_0011.jpg", "eleven");
    before = OrqSimGetFileCount(camera);
    Start();
    ASSERT_EQ(Cameras().size(), 1u);
    EXPECT_EQ(OrqSimGetFileCount(camera), before);
    fs::remove(kept);
}
