// Zoom, focus and preview end to end: a virtual SX160 driven through the C API and its main loop.
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "orqsdk.h"
#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

using linktest::Count;

struct Counter {
    std::mutex lock;
    std::condition_variable changed;
    int count = 0;

    static void Bump(void* self) {
        auto* counter = static_cast<Counter*>(self);
        std::lock_guard<std::mutex> guard(counter->lock);
        ++counter->count;
        counter->changed.notify_all();
    }
    bool WaitFor(int wanted, std::chrono::milliseconds limit = 5s) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, limit, [&] { return count >= wanted; });
    }
    int Count() {
        std::lock_guard<std::mutex> guard(lock);
        return count;
    }
};

template <class Pred>
bool Eventually(Pred pred, std::chrono::milliseconds limit = 5s) {
    for (auto end = std::chrono::steady_clock::now() + limit;
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(5ms)) {
        if (pred()) return true;
    }
    return pred();
}

// One SX160 on the bus and a session on it.
class ControlsApi : public ::testing::Test {
protected:
    void SetUp() override {
        static int serial = 0;
        path = u"orqsim://controls-api/" + orq::platform::FromUtf8(std::to_string(++serial));
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
        logStart = linktest::LogSize();
    }
    void TearDown() override {
        if (session) OrqFree(session);
        if (manager) OrqFree(manager);
        OrqTerminateSDK();
        camera->Unplug();
    }
    std::vector<int32_t> SetZoomParams() {
        std::vector<int32_t> params;
        for (const auto& op : camera->Operations()) {
            if (op.SubCommand() == orq::ORQM_SetZoom) params.push_back(int32_t(op.params.at(1)));
        }
        return params;
    }

    std::u16string path;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    OrqCameraManagerHandle manager = nullptr;
    OrqSessionHandle session = nullptr;
    size_t logStart = 0;
};

TEST_F(ControlsApi, ZoomRequestsDuringTravelCollapseIntoOne) {
    Counter completed, changed;
    OrqSubscription a = OrqZoomCompletedSubscribe(session, &Counter::Bump, &completed);
    OrqSubscription b = OrqZoomChangedSubscribe(session, &Counter::Bump, &changed);
    int maximum = 0;
    ASSERT_EQ(OrqGetMaximumZoom(session, &maximum), ORQ_OK);
    ASSERT_EQ(maximum, 125);

    // 60 steps of 10 ms: the next three requests arrive while the lens travels.
    ASSERT_EQ(OrqSetZoom(session, 60), ORQ_OK);
    ASSERT_TRUE(Eventually([&] { return SetZoomParams().size() == 1; }));
    for (int step : {10, 200, 30}) ASSERT_EQ(OrqSetZoom(session, step), ORQ_OK);

    ASSERT_TRUE(completed.WaitFor(2));
    EXPECT_TRUE(changed.WaitFor(2));
    EXPECT_EQ(SetZoomParams(), (std::vector<int32_t>{60, 30}));
    int zoom = -1;
    EXPECT_EQ(OrqGetZoom(session, &zoom), ORQ_OK);
    EXPECT_EQ(zoom, 30);
    const auto log = linktest::MessagesSince(logStart);
    EXPECT_EQ(Count(log, "Main loop: set zoom (next) 200"), 1);
    EXPECT_EQ(Count(log, "Main loop: set zoom (next) 30"), 1);
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(completed.Count(), 2);
    OrqFree(a);
    OrqFree(b);
}

TEST_F(ControlsApi, FocusMovesAndShiftsReportEachChange) {
    Counter focusChanged;
    OrqSubscription a = OrqFocusChangedSubscribe(session, &Counter::Bump, &focusChanged);
    orq::CameraConfig config;
    ASSERT_TRUE(orq::FindCameraConfig(u"SX160", config));
    const auto& stops = config.focusTable.at(0);

    ASSERT_EQ(OrqSetFocus(session, stops[7]), ORQ_OK);
    ASSERT_TRUE(focusChanged.WaitFor(1));
    ASSERT_EQ(OrqFocusShift(session, 2), ORQ_OK);
    ASSERT_TRUE(focusChanged.WaitFor(2));
    int focus = 0;
    EXPECT_EQ(OrqGetFocus(session, &focus), ORQ_OK);
    EXPECT_EQ(focus, stops[9]);
    EXPECT_EQ(camera->FocusPosition(), stops[9]);
    OrqFree(a);
}

// The preview event's handler fetches the frame at once and gives it back.
struct FrameGrabber {
    OrqSessionHandle session = nullptr;
    std::mutex lock;
    std::condition_variable changed;
    int frames = 0;
    int size = 0;
    bool bmp = false;

    static void OnFrame(void* self) {
        auto* grabber = static_cast<FrameGrabber*>(self);
        void* frame = nullptr;
        int size = 0;
        if (OrqGetPreviewFrame(grabber->session, &frame, &size) != ORQ_OK) return;
        const bool bmp = static_cast<char*>(frame)[0] == 'B' && static_cast<char*>(frame)[1] == 'M';
        OrqFree(frame);
        std::lock_guard<std::mutex> guard(grabber->lock);
        ++grabber->frames;
        grabber->size = size;
        grabber->bmp = bmp;
        grabber->changed.notify_all();
    }
};

TEST_F(ControlsApi, PreviewFramesFlowWhileOnAndStayFetchableWhenOff) {
    FrameGrabber grabber;
    grabber.session = session;
    OrqSubscription a = OrqNewPreviewFrameSubscribe(session, &FrameGrabber::OnFrame, &grabber);
    void* frame = nullptr;
    int size = 0;
    EXPECT_EQ(OrqGetPreviewFrame(session, &frame, &size), ORQ_NOT_READY);

    ASSERT_EQ(OrqSetPreviewState(session, 1), ORQ_OK);
    {
        std::unique_lock<std::mutex> guard(grabber.lock);
        ASSERT_TRUE(grabber.changed.wait_for(guard, 5s, [&] { return grabber.frames >= 3; }));
        EXPECT_EQ(grabber.size, 230454);  // the camera's 360 x 240 comes out 320 x 240
        EXPECT_TRUE(grabber.bmp);
    }
    ASSERT_EQ(OrqSetPreviewState(session, 0), ORQ_OK);
    OrqFree(a);

    // The last frame stays, and is handed out once at a time.
    ASSERT_EQ(OrqGetPreviewFrame(session, &frame, &size), ORQ_OK);
    void* again = nullptr;
    EXPECT_EQ(OrqGetPreviewFrame(session, &again, &size), ORQ_ERROR);
    OrqFree(frame);
    ASSERT_EQ(OrqGetPreviewFrame(session, &again, &size), ORQ_OK);
    EXPECT_EQ(again, frame);
    EXPECT_EQ(size, 230454);
    // Left held: termination gives it back.
}

}  // namespace
}  // namespace controlstest
