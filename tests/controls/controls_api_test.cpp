// Zoom, focus and preview end to end: a virtual SX160 driven through the C API and its main loop.
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "orqsdk.h"
#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

// Counts an event's calls. Given a session, it handles the preview event as an application
// would: fetches the frame from inside the callback and gives it back at once.
struct Handler {
    OrqSessionHandle session = nullptr;
    std::mutex lock;
    std::condition_variable changed;
    int calls = 0;
    int frameSize = 0;
    bool bmp = false;

    static void Call(void* self) {
        auto* handler = static_cast<Handler*>(self);
        int size = 0;
        bool bmp = false;
        if (handler->session) {
            void* frame = nullptr;
            if (OrqGetPreviewFrame(handler->session, &frame, &size) != ORQ_OK) return;
            bmp = std::memcmp(frame, "BM", 2) == 0;
            OrqFree(frame);
        }
        std::lock_guard<std::mutex> guard(handler->lock);
        ++handler->calls;
        handler->frameSize = size;
        handler->bmp = bmp;
        handler->changed.notify_all();
    }
    bool WaitFor(int wanted) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, 5s, [&] { return calls >= wanted; });
    }
};

// One SX160 on the bus and a session on it.
class ControlsApi : public ::testing::Test {
protected:
    void SetUp() override {
        static int serial = 0;
        path = u"orqsim://controls-api/" + orq::platform::FromUtf8(std::to_string(++serial));
        camera = std::make_shared<orqsim::VirtualCamera>();
        ASSERT_TRUE(camera->PlugIn(path));
        // Another test program on this machine may hold the SDK for a while.
        OrqResult started = OrqInitializeSDK();
        for (int i = 0; i < 600 && started == ORQ_SECOND_PROCESS; ++i) {
            std::this_thread::sleep_for(200ms);
            started = OrqInitializeSDK();
        }
        ASSERT_EQ(started, ORQ_OK);
        manager = OrqGetCameraManager();
        OrqCameraInfo* list = nullptr;
        int count = 0;
        ASSERT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
        ASSERT_EQ(count, 1);
        ASSERT_EQ(OrqOpenSession(manager, list[0].id, &session), ORQ_OK);
        OrqFree(list);
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
};

TEST_F(ControlsApi, ZoomRequestsDuringTravelCollapseIntoOne) {
    Handler completed, changed;
    OrqSubscription a = OrqZoomCompletedSubscribe(session, &Handler::Call, &completed);
    OrqSubscription b = OrqZoomChangedSubscribe(session, &Handler::Call, &changed);

    // 60 steps of 10 ms: the next three requests arrive while the lens travels.
    ASSERT_EQ(OrqSetZoom(session, 60), ORQ_OK);
    for (int i = 0; i < 500 && SetZoomParams().empty(); ++i) std::this_thread::sleep_for(5ms);
    ASSERT_EQ(SetZoomParams().size(), 1u);
    for (int step : {10, 200, 30}) ASSERT_EQ(OrqSetZoom(session, step), ORQ_OK);

    ASSERT_TRUE(completed.WaitFor(2));
    EXPECT_TRUE(changed.WaitFor(2));
    EXPECT_EQ(SetZoomParams(), (std::vector<int32_t>{60, 30}));
    int zoom = -1;
    EXPECT_EQ(OrqGetZoom(session, &zoom), ORQ_OK);
    EXPECT_EQ(zoom, 30);
    OrqFree(a);
    OrqFree(b);
}

TEST_F(ControlsApi, FocusMovesAndShiftsReportEachChange) {
    Handler focusChanged;
    OrqSubscription a = OrqFocusChangedSubscribe(session, &Handler::Call, &focusChanged);
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

TEST_F(ControlsApi, PreviewFramesAreFetchedAndGivenBackFromTheirOwnEvent) {
    Handler grabber;
    grabber.session = session;
    OrqSubscription a = OrqNewPreviewFrameSubscribe(session, &Handler::Call, &grabber);
    ASSERT_EQ(OrqSetPreviewState(session, 1), ORQ_OK);
    // Each frame after the first is fetched only if the one before was given back.
    ASSERT_TRUE(grabber.WaitFor(3));
    ASSERT_EQ(OrqSetPreviewState(session, 0), ORQ_OK);
    OrqFree(a);
    std::lock_guard<std::mutex> guard(grabber.lock);
    EXPECT_EQ(grabber.frameSize, 230454);  // the camera's 360 x 240 comes out 320 x 240
    EXPECT_TRUE(grabber.bmp);
}

}  // namespace
}  // namespace controlstest
