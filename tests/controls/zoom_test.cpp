// Zoom on a virtual SX160 (steps 0 to 125, 10 ms of lens travel per step, polled every 100 ms).
#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

using linktest::Count;
using linktest::InOrder;

class Zoom : public ControlsTest {
protected:
    // Puts the lens somewhere by hand and lets the poll see it.
    void LensAt(int32_t step) {
        camera->SetZoomPosition(step);
        ASSERT_EQ(device->UpdateZoom(), ORQ_OK);
        device->ClearNotes();
        camera->ClearOperations();
        logStart = linktest::LogSize();
    }
};

TEST_F(Zoom, WaitsForTheLensThenCompletesBeforeReportingTheChange) {
    // 30 steps take 300 ms: the command and at least three polls.
    ProcOutcome outcome = RunProc(device->CreateZoomProc(30));
    EXPECT_EQ(outcome.result, ORQ_OK);
    EXPECT_GE(outcome.steps, 4);
    EXPECT_EQ(Ops(orq::ORQM_SetZoom), 1u);
    EXPECT_EQ(Ops(orq::ORQM_GetZoom), 0u);  // the request is taken as the position reached
    EXPECT_EQ(device->GetZoom(), 30);
    EXPECT_EQ(device->Notes(), (Strings{"zoom completed", "zoom changed"}));
    EXPECT_TRUE(
        InOrder(Log(), {"Set zoom on camera: 30", "zoom finished for: 30", "zoom changed: 30"}));
}

TEST_F(Zoom, RequestsAreLimitedToTheLensRangeOrZeroWithoutZoom) {
    LensAt(3);
    EXPECT_EQ(RunProc(device->CreateZoomProc(-7)).result, ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 0);
    EXPECT_EQ(Count(Log(), "zoom finished for: 0"), 1);
    LensAt(120);
    EXPECT_EQ(RunProc(device->CreateZoomProc(1000)).result, ORQ_OK);
    EXPECT_EQ(camera->ZoomPosition(), 125);

    // Without zoom the camera is not asked where the lens is, and step 0 is sent.
    device->SetMaxZoom(0);
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 0);
    EXPECT_EQ(Ops(orq::ORQM_GetZoom), 0u);
    EXPECT_EQ(RunProc(device->CreateZoomProc(8)).result, ORQ_OK);
    EXPECT_EQ(Params(orq::ORQM_SetZoom), (std::vector<int32_t>{125, 0}));
}

TEST_F(Zoom, SameStepStillGoesToTheCameraButReportsNoChange) {
    // Just after loading nothing has been reported: the first zoom reports even to the same step.
    EXPECT_EQ(RunProc(device->CreateZoomProc(0)).result, ORQ_OK);
    EXPECT_EQ(device->Notes(), (Strings{"zoom completed", "zoom changed"}));
    device->ClearNotes();
    EXPECT_EQ(RunProc(device->CreateZoomProc(0)).result, ORQ_OK);
    EXPECT_EQ(device->Notes(), (Strings{"zoom completed"}));
    EXPECT_EQ(Ops(orq::ORQM_SetZoom), 2u);
}

TEST_F(Zoom, StaleFinishBitCannotEndANewWait) {
    camera->RaiseEvents(orq::ZOOM_FINISHED);
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    ASSERT_TRUE(device->CameraEvent(orq::CAMERA_EVENT_ZOOM_FINISHED));
    // 40 steps take 400 ms: the stale bit would end the wait at the first poll.
    EXPECT_GE(RunProc(device->CreateZoomProc(40)).steps, 5);
    EXPECT_EQ(camera->ZoomPosition(), 40);
}

TEST_F(Zoom, FailedCommandOrPollEndsAtOnceAndKeepsTheZoom) {
    const struct {
        uint32_t subCommand;
        int steps;
        Strings lines;
    } cases[] = {
        {orq::ORQM_SetZoom, 1, {"PTP_ORQM_SetZoom failed"}},
        {orq::ORQM_GetEvents, 2, {"PTP_ORQM_GetEvents failed", "PTPLoadEvents() failed"}},
    };
    for (const auto& c : cases) {
        LensAt(5);
        InjectFailure(c.subCommand);
        ProcOutcome outcome = RunProc(device->CreateZoomProc(100));
        EXPECT_EQ(outcome.result, ORQ_ERROR) << c.lines[0];
        EXPECT_EQ(outcome.steps, c.steps) << c.lines[0];
        EXPECT_EQ(device->GetZoom(), 5) << c.lines[0];
        EXPECT_TRUE(device->Notes().empty()) << c.lines[0];
        EXPECT_TRUE(InOrder(Log(), c.lines));
    }
}

TEST_F(Zoom, PollFollowsTheLensAndKeepsTheZoomWhenTheReadFails) {
    camera->SetZoomPosition(7);
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);  // no change, no report
    EXPECT_EQ(device->GetZoom(), 7);
    EXPECT_EQ(device->Notes(), (Strings{"zoom changed"}));
    EXPECT_TRUE(InOrder(Log(), {"zoom changed from camera: 7", "zoom changed: 7"}));
    camera->SetZoomPosition(400);  // beyond the lens counts as its end
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 125);

    camera->SetZoomPosition(9);
    InjectFailure(orq::ORQM_GetZoom);
    EXPECT_EQ(device->UpdateZoom(), ORQ_ERROR);
    EXPECT_EQ(device->GetZoom(), 125);
    EXPECT_TRUE(InOrder(Log(), {"PTP_ORQM_GetZoom failed", "Get zoom failed"}));
}

}  // namespace
}  // namespace controlstest
