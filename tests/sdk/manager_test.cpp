#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
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

// A camera's text reaches the log escaped on every path: a line break in its product string,
// module version, serial number or a file name never makes a line of the camera's choosing.
TEST_F(SdkTest, CameraTextNeverForgesALogLine) {
    auto plug = [&](std::u16string product, std::string version, std::u16string serial) {
        orqsim::CameraOptions options;
        options.productString = std::move(product);
        options.orqmVersion = std::move(version);
        options.serialNumber = std::move(serial);
        options.shootMs = 200;
        auto camera = std::make_shared<orqsim::VirtualCamera>(options);
        EXPECT_TRUE(camera->PlugIn(u"orqsim://forged/" + options.productString.substr(11, 5)));
        plugged.push_back(camera);
        return camera;
    };
    plug(u"Orq Camera ZZ999\nFORGED product", "3.1.3.0", u"1");
    plug(u"Orq Camera G15", "1.0\nFORGED old", u"2");
    auto camera =
        plug(u"Orq Camera SX160\nFORGED name", "3.1.3.0\nFORGED version", u"SN\nFORGED serial");
    logStart = LogSize();
    Start();
    ASSERT_EQ(Cameras().size(), 1u);
    session = Open(camera);
    Recorder shots;
    OrqShootCompletedSubscribe(session, &Recorder::OnShot, &shots);
    ASSERT_EQ(OrqShoot(session), ORQ_OK);
    // The camera's next new file is one it names itself.
    ASSERT_TRUE(
        WaitFor([&] { return camera->CountOperations(orq::PTP_OC_Vendor, orq::ORQM_Shoot); }));
    camera->AddFile(u"IMG_0500\nFORGED shot.JPG", Pattern(10));
    ASSERT_TRUE(shots.Await(shots.shots, 1));
    EXPECT_EQ(Narrow(shots.shots[0].name), "IMG_0500\nFORGED shot.JPG");
    OrqFree(session);
    session = nullptr;
    camera->Unplug();
    ASSERT_TRUE(WaitFor([&] { return Cameras().empty(); }));

    // Each line stands with its source, or continues one of ours, indented.
    const std::regex ours(R"(^(DEB|INF|ERR) [\d :.-]+ \| (    .*|.* \| \w+:\d+ \[\d+\]))");
    const std::string log = ReadAll(orq::MainLogPath()).substr(logStart);
    for (const std::string& line : LogLinesSince(logStart))
        EXPECT_TRUE(line.empty() || std::regex_match(line, ours)) << line;
    for (const char* escaped : {"camera config not found: Orq Camera ZZ999\\x0AFORGED product",
                                "Old Orqm version. Current: '1.0\\x0AFORGED old'",
                                "Orq Camera SX160\\x0AFORGED name", "3.1.3.0\\x0AFORGED version",
                                "SN\\x0AFORGED serial", "name: IMG_0500\\x0AFORGED shot.JPG"})
        EXPECT_NE(log.find(escaped), std::string::npos) << escaped;
    // Found, gone, deleted.
    EXPECT_EQ(CountContaining(LogLinesSince(logStart), "    Orq Camera SX160\\x0AFORGED name"), 3);
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
