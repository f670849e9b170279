// Shots, downloads, deletions and video end to end: a virtual SX160 driven through the C API and
// its main loop.
#include <condition_variable>
#include <mutex>

#include "orqsdk.h"
#include "tests/capture/capture_support.h"

namespace capturetest {
namespace {

// What the session's events delivered, copied out of the SDK's memory.
struct Events {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<OrqFileInfo> shots;
    std::vector<std::pair<int, std::u16string>> downloads;
    std::vector<OrqResult> errors;

    static void OnShot(void* self, OrqFileInfo* file) {
        auto* events = static_cast<Events*>(self);
        {
            std::lock_guard<std::mutex> guard(events->lock);
            events->shots.push_back(*file);
        }
        OrqFree(file);
        events->changed.notify_all();
    }
    static void OnDownload(void* self, int fileId, OrqChar* path) {
        auto* events = static_cast<Events*>(self);
        std::u16string copy;
        for (size_t i = 0; path[i]; ++i) copy += static_cast<char16_t>(path[i]);
        {
            std::lock_guard<std::mutex> guard(events->lock);
            events->downloads.emplace_back(fileId, copy);
        }
        OrqFree(path);
        events->changed.notify_all();
    }
    static void OnError(void* self, OrqResult result) {
        auto* events = static_cast<Events*>(self);
        {
            std::lock_guard<std::mutex> guard(events->lock);
            events->errors.push_back(result);
        }
        events->changed.notify_all();
    }

    template <class Pred>
    bool Wait(Pred pred, std::chrono::milliseconds limit = 10s) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, limit, [&] { return pred(*this); });
    }
};

class CaptureApi : public ::testing::Test {
protected:
    void SetUp() override {
        static int serial = 0;
        path = u"orqsim://capture-api/" + orq::platform::FromUtf8(std::to_string(++serial));
        camera = std::make_shared<orqsim::VirtualCamera>();
        ASSERT_TRUE(camera->PlugIn(path));
        ASSERT_EQ(OrqInitializeSDK(), ORQ_OK);
        manager = OrqGetCameraManager();
        OrqCameraInfo* list = nullptr;
        int count = 0;
        ASSERT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
        ASSERT_EQ(count, 1);
        ASSERT_EQ(OrqOpenSession(manager, list[0].id, &session), ORQ_OK);
        OrqFree(list);
        subscriptions = {OrqShootCompletedSubscribe(session, &Events::OnShot, &events),
                         OrqDownloadCompletedSubscribe(session, &Events::OnDownload, &events),
                         OrqCameraErrorSubscribe(session, &Events::OnError, &events)};
        logStart = linktest::LogSize();
    }
    void TearDown() override {
        for (OrqSubscription subscription : subscriptions) OrqFree(subscription);
        if (session) OrqFree(session);
        if (manager) OrqFree(manager);
        OrqTerminateSDK();
        camera->Unplug();
    }

    OrqFileInfo ShootOne() {
        size_t before = events.shots.size();
        EXPECT_EQ(OrqShoot(session), ORQ_OK);
        EXPECT_TRUE(events.Wait([&](Events& e) { return e.shots.size() > before; }));
        std::lock_guard<std::mutex> guard(events.lock);
        return events.shots.empty() ? OrqFileInfo{} : events.shots.back();
    }

    std::u16string path;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    OrqCameraManagerHandle manager = nullptr;
    OrqSessionHandle session = nullptr;
    Events events;
    std::vector<OrqSubscription> subscriptions;
    size_t logStart = 0;
};

TEST_F(CaptureApi, ShotDownloadsToTheTemporaryFolderAndIsDeletedAfter) {
    EXPECT_EQ(OrqDownloadFile(session, 4242, 0), ORQ_ERROR);
    EXPECT_EQ(Count(linktest::MessagesSince(logStart), "Download file: file not found"), 1);

    OrqFileInfo shot = ShootOne();
    ASSERT_GE(shot.id, 0);
    auto bytes = camera->FileBytes(static_cast<uint32_t>(shot.id));
    ASSERT_TRUE(bytes);

    ASSERT_EQ(OrqDownloadFile(session, shot.id, 1), ORQ_OK);
    ASSERT_TRUE(events.Wait([](Events& e) { return !e.downloads.empty(); }));
    std::u16string expected = orq::platform::TempFolder();
    if (expected.back() != orq::platform::PathSeparator())
        expected += orq::platform::PathSeparator();
    expected += orq::platform::FromUtf8(Narrow(shot.name));
    EXPECT_EQ(events.downloads[0].first, shot.id);
    EXPECT_EQ(events.downloads[0].second, expected);
    EXPECT_EQ(ReadAll(expected), std::string(bytes->begin(), bytes->end()));
    // Deleted within the same message.
    EXPECT_TRUE(events.Wait([&](Events&) { return !camera->FileBytes(shot.id); }, 2s));
    EXPECT_TRUE(events.errors.empty());
}

TEST_F(CaptureApi, DirectShotIsDownloadedByPathAndDeleted) {
    ASSERT_EQ(OrqSetPropertyData(session, orq::PROP_DIRECT_TRANSFER, 0), ORQ_OK);
    const auto picture = Pattern(700 * 1024, 11);
    camera->SetRemotePicture(picture);
    size_t cardFiles = camera->Files().size();

    OrqFileInfo shot = ShootOne();
    EXPECT_EQ(shot.id, -100);
    EXPECT_EQ(Narrow(shot.name), "direct_100.jpg");
    EXPECT_EQ(camera->Files().size(), cardFiles);

    // Buffered files stand in no table: only a download to a given path reaches them.
    EXPECT_EQ(OrqDownloadFile(session, shot.id, 0), ORQ_ERROR);
    std::u16string target = orq::platform::TempFolder();
    if (target.back() != orq::platform::PathSeparator()) target += orq::platform::PathSeparator();
    target += u"capture_api_direct.jpg";
    std::vector<OrqChar> wide(target.begin(), target.end());
    wide.push_back(0);
    ASSERT_EQ(OrqDownloadFileTo(session, shot.id, wide.data(), 0), ORQ_OK);
    ASSERT_TRUE(events.Wait([](Events& e) { return !e.downloads.empty(); }));
    EXPECT_EQ(events.downloads[0], std::make_pair(-100, target));
    EXPECT_EQ(ReadAll(target), std::string(picture.begin(), picture.end()));

    ASSERT_EQ(OrqDeleteFile(session, shot.id), ORQ_OK);
    // Gone: a second download fails on the main loop and ends the session.
    ASSERT_EQ(OrqDownloadFileTo(session, shot.id, wide.data(), 0), ORQ_OK);
    ASSERT_TRUE(events.Wait([](Events& e) { return !e.errors.empty(); }));
    const auto log = linktest::MessagesSince(logStart);
    EXPECT_EQ(Count(log, "PTPRemoveFile: DirectTransfer -100"), 1);
    EXPECT_EQ(Count(log, "PTPDownloadFile: DirectTransfer FileId not found!"), 1);
    EXPECT_EQ(events.downloads.size(), 1u);
}

TEST_F(CaptureApi, VideoBlocksShotsUntilStopped) {
    ASSERT_EQ(OrqStartVideo(session), ORQ_OK);
    EXPECT_EQ(OrqShoot(session), ORQ_ERROR);
    std::this_thread::sleep_for(30ms);
    OrqFileInfo movie{};
    ASSERT_EQ(OrqStopVideo(session, &movie), ORQ_OK);
    std::string name = Narrow(movie.name);
    ASSERT_GT(name.size(), 4u);
    EXPECT_EQ(name.substr(name.size() - 4), ".MOV");
    EXPECT_TRUE(camera->FileBytes(static_cast<uint32_t>(movie.id)));

    OrqFileInfo shot = ShootOne();
    EXPECT_GE(shot.id, 0);
    EXPECT_EQ(
        Count(linktest::MessagesSince(logStart), "Shooting not supported: video recording started"),
        1);
    EXPECT_TRUE(events.errors.empty());
}

}  // namespace
}  // namespace capturetest
