// What the C API adds to shots, downloads and video: the commands' own checks on the caller's
// thread, the main loop's messages and the events. A virtual SX160 behind a started SDK.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#ifndef _WIN32
#include <unistd.h>
#endif

#include "tests/support/support.h"

namespace capturetest {
namespace {

using namespace orqtest;

class CaptureApi : public SdkTest {
protected:
    void SetUp() override {
        camera = StartWithSession();
        OrqShootCompletedSubscribe(session, &Recorder::OnShot, &events);
        OrqDownloadCompletedSubscribe(session, &Recorder::OnDownload, &events);
    }

    std::vector<OrqFileInfo> Shots() { return events.Copy(events.shots); }
    std::vector<std::pair<int, std::u16string>> Downloads() {
        return events.Copy(events.downloads);
    }
    OrqFileInfo ShootOne() {
        const size_t before = Shots().size();
        EXPECT_EQ(OrqShoot(session), ORQ_OK);
        EXPECT_TRUE(WaitFor([&] { return Shots().size() > before; }, 10000));
        return Shots().empty() ? OrqFileInfo{} : Shots().back();
    }

    std::shared_ptr<orqsim::VirtualCamera> camera;
    Recorder events;
};

TEST_F(CaptureApi, ShotsAndDownloadsGoThroughTheMainLoop) {
    // The commands' own checks answer at once.
    ASSERT_EQ(OrqStartVideo(session), ORQ_OK);
    EXPECT_EQ(OrqShoot(session), ORQ_ERROR);
    ASSERT_EQ(OrqStopVideo(session, nullptr), ORQ_OK);

    // A file of the table goes to the temporary folder under its own name.
    const OrqFileInfo card = ShootOne();
    const auto bytes = camera->FileBytes(static_cast<uint32_t>(card.id));
    ASSERT_TRUE(bytes);
    // No path at all is refused at the call: nothing queued, nothing in the working folder (an
    // empty one until the download behind has ended).
    const auto home = std::filesystem::current_path();
    const auto working = std::filesystem::path(orq::platform::ToUtf8(TempPath("capture_api_cwd")));
    std::filesystem::remove_all(working);
    std::filesystem::create_directory(working);
    std::filesystem::current_path(working);
    OrqChar empty[] = {0};
    EXPECT_EQ(OrqDownloadFileTo(session, card.id, nullptr, 1), ORQ_ERROR);
    EXPECT_EQ(OrqDownloadFileTo(session, card.id, empty, 1), ORQ_ERROR);
    ASSERT_EQ(OrqDownloadFile(session, card.id, 1), ORQ_OK);
    ASSERT_TRUE(WaitFor([&] { return !Downloads().empty(); }));
    const std::u16string named = TempPath(Narrow(card.name));
    EXPECT_EQ(Downloads()[0], std::make_pair(card.id, named));
    EXPECT_EQ(ReadAll(named), std::string(bytes->begin(), bytes->end()));
    // Deleted within the same message.
    EXPECT_TRUE(WaitFor([&] { return !camera->FileBytes(card.id); }));
    std::filesystem::current_path(home);
    EXPECT_TRUE(std::filesystem::is_empty(working));

    // A buffered picture stands in no table: only a download to a given path reaches it.
    ASSERT_EQ(OrqSetPropertyData(session, ORQ_PROP_DIRECT_TRANSFER, 0), ORQ_OK);
    camera->SetRemotePicture(Pattern(700 * 1024, 11));
    EXPECT_EQ(ShootOne().id, -100);
    EXPECT_EQ(OrqDownloadFile(session, -100, 0), ORQ_ERROR);
    EXPECT_EQ(Logged("Download file: file not found"), 1);
    const std::u16string target = TempPath("capture_api_direct.jpg");
    std::vector<OrqChar> wide(target.begin(), target.end());
    wide.push_back(0);
    ASSERT_EQ(OrqDownloadFileTo(session, -100, wide.data(), 0), ORQ_OK);
    ASSERT_TRUE(WaitFor([&] { return Downloads().size() == 2; }));
    EXPECT_EQ(Downloads()[1], std::make_pair(-100, target));
    ASSERT_EQ(OrqDeleteFile(session, -100), ORQ_OK);
    EXPECT_TRUE(WaitFor([&] { return Logged("PTPRemoveFile: DirectTransfer -100") == 1; }));
}

// A shot is the camera's from the moment OrqShoot accepts it, though the loop is still busy with
// its poll: video does not start under it, and it is taken.
TEST_F(CaptureApi, AQueuedShotKeepsVideoFromStartingAndIsTaken) {
    Recorder errors;
    OrqCameraErrorSubscribe(session, &Recorder::OnCameraError, &errors);
    // Told of the shot, the application starts video at once: the hold has ended by then.
    struct VideoOnShot {
        OrqSessionHandle session;
        std::atomic<int> started{-1};
    } video{session};
    OrqShootCompletedSubscribe(
        session,
        [](void* self, OrqFileInfo* file) {
            auto* on = static_cast<VideoOnShot*>(self);
            on->started = OrqStartVideo(on->session);
            OrqFree(file);
        },
        &video);
    // The poll's battery reading is held until the shot is queued and the video refused.
    camera->InjectFault(
        Fault::Operation(Fault::Delay, orq::PTP_OC_Vendor, orq::ORQM_GetVBat, 1500));
    camera->ClearOperations();
    ASSERT_TRUE(
        WaitFor([&] { return camera->CountOperations(orq::PTP_OC_Vendor, orq::ORQM_GetVBat); }));
    ASSERT_EQ(OrqShoot(session), ORQ_OK);
    EXPECT_EQ(OrqStartVideo(session), ORQ_SESSION_BUSY);
    ASSERT_TRUE(events.Await(events.shots, 1));
    EXPECT_TRUE(camera->FileBytes(static_cast<uint32_t>(Shots()[0].id)));
    ASSERT_TRUE(WaitFor([&] { return video.started != -1; }));
    EXPECT_EQ(video.started, ORQ_OK);
    EXPECT_EQ(OrqShoot(session), ORQ_ERROR);
    EXPECT_EQ(OrqStopVideo(session, nullptr), ORQ_OK);
    EXPECT_EQ(errors.Size(errors.cameraErrors), 0u);
}

// The camera names the file; only a plain name may ever become one in the temporary folder. A
// download whose file was not verifiably written never costs the card its copy.
TEST_F(CaptureApi, CameraFileNamesStayInsideTheTemporaryFolderAndFailuresKeepTheCardFile) {
    const std::u16string refused[] = {u"../escape.jpg", u"sub/x.jpg", u"c:x.jpg", u"bell\a.jpg",
                                      std::u16string(90, u'\u00e9') + u".jpg"};
    std::vector<int32_t> ids;
    for (const auto& name : refused)
        ids.push_back(static_cast<int32_t>(camera->AddFile(name, Pattern(100))));
    const auto plainBytes = Pattern(300, 5);
    const auto plain = static_cast<int32_t>(camera->AddFile(u"plain.jpg", plainBytes));
#ifndef _WIN32
    // A link planted under the plain name is replaced, never followed.
    const std::string victim = orq::platform::ToUtf8(TempPath("capture_victim.txt"));
    const std::string planted = orq::platform::ToUtf8(TempPath("plain.jpg"));
    std::remove(planted.c_str());
    { std::ofstream(victim) << "keep"; }
    ASSERT_EQ(symlink(victim.c_str(), planted.c_str()), 0);
#endif
    std::remove(orq::platform::ToUtf8(TempPath("../escape.jpg")).c_str());
    ShootOne();  // lists the card

    OrqFileInfo* list = nullptr;
    int count = 0;
    ASSERT_EQ(OrqGetFileList(session, &list, &count), ORQ_OK);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(Narrow(list[i].name));
    OrqFree(list);
    for (int32_t id : ids) EXPECT_EQ(OrqDownloadFile(session, id, 1), ORQ_ERROR) << id;
    // The list shows the names as the camera gave them; the log escapes them.
    EXPECT_NE(std::find(names.begin(), names.end(), "../escape.jpg"), names.end());
    EXPECT_EQ(Logged("Download file: file name refused: bell\\x07.jpg"), 1);
    for (int32_t id : ids) EXPECT_TRUE(camera->FileBytes(static_cast<uint32_t>(id)));

    ASSERT_EQ(OrqDownloadFile(session, plain, 0), ORQ_OK);
    ASSERT_TRUE(WaitFor([&] { return !Downloads().empty(); }));
    EXPECT_EQ(ReadAll(TempPath("plain.jpg")), std::string(plainBytes.begin(), plainBytes.end()));
    EXPECT_FALSE(std::ifstream(orq::platform::ToUtf8(TempPath("../escape.jpg"))).good());
#ifndef _WIN32
    EXPECT_EQ(ReadAll(orq::platform::FromUtf8(victim)), "keep");
#endif

    const std::u16string none =
        TempPath("capture_api_none") + orq::platform::PathSeparator() + u"x.jpg";
    std::vector<OrqChar> wide(none.begin(), none.end());
    wide.push_back(0);
    ASSERT_EQ(OrqDownloadFileTo(session, plain, wide.data(), 1), ORQ_OK);
    EXPECT_TRUE(WaitFor([&] { return Logged("PTPDownloadFile: write file failed") == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(camera->FileBytes(static_cast<uint32_t>(plain)));
    EXPECT_EQ(Downloads().size(), 1u);
}

using CaptureApiRig = SdkTest;

TEST_F(CaptureApiRig, SynchronisedShotWaitsForTheSlowestAndDropsTheFailed) {
    // Three cameras: one prepares slowly (its card listing is 300 ms late), one fails its
    // preparation; with a null session beside them.
    std::vector<std::shared_ptr<orqsim::VirtualCamera>> cameras;
    for (int i = 0; i < 3; ++i) cameras.push_back(Plug());
    Start();
    std::vector<OrqSessionHandle> sessions(4, nullptr);
    static Recorder events;  // outlives the SDK, which frees the subscriptions
    for (int i = 0; i < 3; ++i) {
        sessions[i] = Open(cameras[i]);
        OrqShootCompletedSubscribe(sessions[i], &Recorder::OnShot, &events);
    }
    // Faults only once every camera has started (start-up lists the card too).
    for (int i = 0; i < 3; ++i) {
        int zoom = 0;
        ASSERT_TRUE(WaitFor([&] { return OrqGetZoom(sessions[i], &zoom) == ORQ_OK; }));
    }
    using orqsim::Fault;
    cameras[1]->InjectFault(Fault::Operation(Fault::Delay, orq::PTP_OC_GetObjectHandles, -1, 300));
    Fault failed = Fault::Operation(Fault::GeneralError, orq::PTP_OC_GetObjectHandles);
    failed.times = -1;
    cameras[2]->InjectFault(failed);

    const auto start = std::chrono::steady_clock::now();
    std::vector<OrqResult> results(4, ORQ_OK);
    EXPECT_EQ(OrqShootSynchronized(sessions.data(), 4, results.data()), ORQ_ERROR);
    EXPECT_EQ(results[0], ORQ_OK);
    EXPECT_EQ(results[1], ORQ_OK);
    EXPECT_NE(results[2], ORQ_OK);
    EXPECT_EQ(results[3], ORQ_ERROR);
    // The quick camera's Shoot waited for the slow one's preparation; the failed one sent none.
    ASSERT_EQ(cameras[0]->ShootTimes().size(), 1u);
    ASSERT_EQ(cameras[1]->ShootTimes().size(), 1u);
    EXPECT_GE(cameras[0]->ShootTimes()[0] - start, 300ms);
    EXPECT_TRUE(cameras[2]->ShootTimes().empty());
    EXPECT_TRUE(events.Await(events.shots, 2));
}

// A release at a moment: the prepared cameras wait for it and none goes before it; one prepared
// after it takes no picture and keeps its session; a moment already gone fires nothing.
TEST_F(CaptureApiRig, TimedReleaseFiresAtTheMomentAndLeavesTheLateUnfired) {
    std::vector<std::shared_ptr<orqsim::VirtualCamera>> cameras;
    for (int i = 0; i < 3; ++i) cameras.push_back(Plug());
    Start();
    std::vector<OrqSessionHandle> sessions(3, nullptr);
    static Recorder events;  // outlives the SDK, which frees the subscriptions
    for (int i = 0; i < 3; ++i) {
        sessions[i] = Open(cameras[i]);
        OrqShootCompletedSubscribe(sessions[i], &Recorder::OnShot, &events);
        int zoom = 0;
        ASSERT_TRUE(WaitFor([&] { return OrqGetZoom(sessions[i], &zoom) == ORQ_OK; }));
    }
    using orqsim::Fault;
    cameras[2]->InjectFault(Fault::Operation(Fault::Delay, orq::PTP_OC_GetObjectHandles, -1, 600));
    const auto utcNow = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const int64_t lead = 250000;
    const auto start = std::chrono::steady_clock::now();
    const int64_t at = utcNow() + lead;
    std::vector<OrqReleaseReport> reports(3);
    EXPECT_EQ(OrqShootSynchronizedAt(sessions.data(), 3, at, reports.data()), ORQ_ERROR);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(reports[i].result, ORQ_OK);
        EXPECT_GE(reports[i].lateUs, 0);
        EXPECT_EQ(reports[i].sentUtcUs - at, reports[i].lateUs);
        ASSERT_EQ(cameras[i]->ShootTimes().size(), 1u);
        EXPECT_GE(cameras[i]->ShootTimes()[0] - start, std::chrono::microseconds(lead));
    }
    EXPECT_EQ(reports[2].result, ORQ_TOO_LATE);
    EXPECT_EQ(reports[2].sentUtcUs, 0);
    EXPECT_GE(reports[2].lateUs, 300000);
    EXPECT_TRUE(cameras[2]->ShootTimes().empty());
    EXPECT_TRUE(events.Await(events.shots, 2));

    // The late camera's session lives on: it shoots the next time.
    cameras[2]->ClearFaults();
    EXPECT_EQ(OrqShoot(sessions[2]), ORQ_OK);
    EXPECT_TRUE(events.Await(events.shots, 3));

    // A moment gone, or too far ahead: nobody fires.
    for (auto& camera : cameras) camera->ClearOperations();
    EXPECT_EQ(OrqShootSynchronizedAt(sessions.data(), 3, utcNow() - 1000, reports.data()),
              ORQ_ERROR);
    for (const OrqReleaseReport& report : reports) {
        EXPECT_EQ(report.result, ORQ_TOO_LATE);
        EXPECT_GE(report.lateUs, 1000);
    }
    reports[0].result = ORQ_OK;
    EXPECT_EQ(OrqShootSynchronizedAt(sessions.data(), 3, utcNow() + 61000000, reports.data()),
              ORQ_ERROR);
    EXPECT_EQ(reports[0].result, ORQ_OK);
    for (auto& camera : cameras) EXPECT_TRUE(camera->ShootTimes().empty());
}

using StartUp = SdkTest;

// Start-up clears the card of pictures numbered from 10 on, whatever the case and the digits'
// count, and brings the camera's own log into ours, escaped.
TEST_F(StartUp, ClearsPicturesNumberedFromTenAndLogsTheCameraLog) {
    const std::pair<const char16_t*, bool> names[] = {
        {u"IMG_0009.JPG", true},  {u"IMG_0010.JPG", false},  {u"img_0123.jpg", false},
        {u"IMG_9.JPG", true},     {u"IMG_00010.JPG", false}, {u"IMG_.JPG", true},
        {u"PHOTO_0042.JPG", true}};
    std::vector<std::pair<uint32_t, bool>> files;
    auto camera = Plug("SX160", [&](orqsim::VirtualCamera& c) {
        for (const auto& [name, kept] : names)
            files.emplace_back(c.AddFile(name, Pattern(10)), kept);
    });
    logStart = LogSize();
    Start();
    ASSERT_EQ(Cameras().size(), 1u);
    for (const auto& [handle, kept] : files)
        EXPECT_EQ(camera->FileBytes(handle) != nullptr, kept) << handle;
    EXPECT_TRUE(
        InOrder(MessagesSince(logStart), {"camera log:", "Orqm camera log\\x0Aboot ok\\x0A"}));
}

}  // namespace
}  // namespace capturetest
