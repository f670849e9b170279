// Zoom, focus and preview end to end: a virtual SX160 driven through the C API and its main loop.
#include <atomic>

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
};

using ControlsApi = SdkTest;

// The collapsing of zoom requests is left to the device loop's tests; here the events' wiring.
TEST_F(ControlsApi, ChangesAndFramesReachTheirEvents) {
    StartWithSession();
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
    ASSERT_TRUE(WaitFor(
        [&] { return focusChanged.calls >= 2 && completed.calls >= 1 && zoomChanged.calls >= 1; }));
    int focus = 0, zoom = 0;
    EXPECT_EQ(OrqGetFocus(session, &focus), ORQ_OK);
    EXPECT_EQ(OrqGetZoom(session, &zoom), ORQ_OK);
    EXPECT_EQ(focus, stops[9]);
    EXPECT_EQ(zoom, 20);

    // Each frame after the first is fetched only if the one before was given back.
    ASSERT_EQ(OrqSetPreviewState(session, 1), ORQ_OK);
    EXPECT_TRUE(WaitFor([&] { return frames.calls >= 3; }));
    ASSERT_EQ(OrqSetPreviewState(session, 0), ORQ_OK);
    for (OrqSubscription subscription : subscriptions) OrqFree(subscription);
    EXPECT_EQ(frames.frameSize, 230454);  // the camera's 360 x 240 comes out 320 x 240
}

}  // namespace
}  // namespace controlstest
