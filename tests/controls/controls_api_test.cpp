// Zoom, focus and preview end to end: a virtual SX160 driven through the C API and its main loop.
#include <atomic>

#include "orqsdk.h"
#include "orqsdk_sim.h"
#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

// Counts an event's calls. Given a session, it handles the preview event as an application
// would: fetches the frame from inside the callback and gives it back at once.
struct Handler {
    OrqSessionHandle session = nullptr;
    std::atomic<int> calls{0}, frameSize{0};

    static void Call(void* self) {
        auto* handler = static_cast<Handler*>(self);
        if (handler->session) {
            void* frame = nullptr;
            int size = 0;
            if (OrqGetPreviewFrame(handler->session, &frame, &size) != ORQ_OK) return;
            handler->frameSize = size;
            OrqFree(frame);
        }
        ++handler->calls;
    }
    bool WaitFor(int wanted) {
        for (int i = 0; i < 1000 && calls < wanted; ++i) std::this_thread::sleep_for(5ms);
        return calls >= wanted;
    }
};

// One SX160 on the bus and a session on it.
class ControlsApi : public ::testing::Test {
protected:
    void SetUp() override {
        camera = OrqSimAttachCamera("SX160");
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
        OrqFree(session);
        OrqFree(manager);
        OrqTerminateSDK();
        OrqSimRemoveCamera(camera);
    }
    OrqSimCamera camera = 0;
    OrqCameraManagerHandle manager = nullptr;
    OrqSessionHandle session = nullptr;
};

// The collapsing of zoom requests is left to the device loop's tests; here the events' wiring.
TEST_F(ControlsApi, ChangesAndFramesReachTheirEvents) {
    Handler completed, zoomChanged, focusChanged, frames;
    frames.session = session;
    const OrqSubscription subscriptions[] = {
        OrqZoomCompletedSubscribe(session, &Handler::Call, &completed),
        OrqZoomChangedSubscribe(session, &Handler::Call, &zoomChanged),
        OrqFocusChangedSubscribe(session, &Handler::Call, &focusChanged),
        OrqNewPreviewFrameSubscribe(session, &Handler::Call, &frames)};
    orq::CameraConfig config;
    ASSERT_TRUE(orq::FindCameraConfig(u"SX160", config));
    const auto& stops = config.focusTable.at(0);
    ASSERT_EQ(OrqSetFocus(session, stops[7]), ORQ_OK);
    ASSERT_EQ(OrqFocusShift(session, 2), ORQ_OK);  // the main loop takes them in order
    ASSERT_EQ(OrqSetZoom(session, 20), ORQ_OK);
    ASSERT_TRUE(focusChanged.WaitFor(2) && completed.WaitFor(1) && zoomChanged.WaitFor(1));
    int focus = 0, zoom = 0;
    EXPECT_EQ(OrqGetFocus(session, &focus), ORQ_OK);
    EXPECT_EQ(OrqGetZoom(session, &zoom), ORQ_OK);
    EXPECT_EQ(focus, stops[9]);
    EXPECT_EQ(zoom, 20);

    // Each frame after the first is fetched only if the one before was given back.
    ASSERT_EQ(OrqSetPreviewState(session, 1), ORQ_OK);
    EXPECT_TRUE(frames.WaitFor(3));
    ASSERT_EQ(OrqSetPreviewState(session, 0), ORQ_OK);
    for (OrqSubscription subscription : subscriptions) OrqFree(subscription);
    EXPECT_EQ(frames.frameSize, 230454);  // the camera's 360 x 240 comes out 320 x 240
}

}  // namespace
}  // namespace controlstest
