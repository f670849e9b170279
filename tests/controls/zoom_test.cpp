// Zoom on a virtual SX160 (steps 0 to 125, 10 ms of lens travel per step).
#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

using linktest::Count;
using linktest::InOrder;
using orqsim::Fault;

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

TEST_F(Zoom, RequestsAreLimitedToTheLensRange) {
    LensAt(120);
    ProcOutcome up = RunProc(device->CreateZoomProc(1000));
    EXPECT_EQ(up.result, ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 125);
    EXPECT_EQ(camera->ZoomPosition(), 125);

    LensAt(3);
    EXPECT_EQ(RunProc(device->CreateZoomProc(-7)).result, ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 0);
    EXPECT_EQ(Params(orq::ORQM_SetZoom), std::vector<int32_t>{0});
    EXPECT_EQ(Count(Log(), "zoom finished for: 0"), 1);
}

TEST_F(Zoom, WaitsForTheLensThenCompletesBeforeReportingTheChange) {
    // 30 steps of 10 ms: the finish bit can't come before 300 ms.
    ProcOutcome outcome = RunProc(device->CreateZoomProc(30));
    EXPECT_EQ(outcome.result, ORQ_OK);
    EXPECT_GE(outcome.elapsed, 300ms);
    EXPECT_LT(outcome.elapsed, 1000ms);
    // One command, then one event poll per 100 ms step.
    EXPECT_EQ(Ops(orq::ORQM_SetZoom), 1u);
    EXPECT_EQ(Ops(orq::ORQM_GetEvents), size_t(outcome.steps - 1));
    EXPECT_GE(outcome.steps, 4);
    EXPECT_EQ(Ops(orq::ORQM_GetZoom), 0u);  // the request is taken as the position reached
    EXPECT_EQ(device->GetZoom(), 30);
    EXPECT_EQ(device->Notes(), (Strings{"zoom completed", "zoom changed"}));
    EXPECT_TRUE(
        InOrder(Log(), {"Set zoom on camera: 30", "zoom finished for: 30", "zoom changed: 30"}));
}

TEST_F(Zoom, SameStepStillGoesToTheCameraButReportsNoChange) {
    // Just after loading, nothing has been reported: the first zoom reports even to the same step.
    EXPECT_EQ(device->ReportedZoom(), -1);
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
    ProcOutcome outcome = RunProc(device->CreateZoomProc(40));
    EXPECT_GE(outcome.elapsed, 400ms);
    EXPECT_EQ(camera->ZoomPosition(), 40);
}

TEST_F(Zoom, FailedCommandEndsAtOnceAndKeepsTheZoom) {
    LensAt(5);
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, orq::ORQM_SetZoom,
                                         orqsim::RC_OperationNotSupported));
    ProcOutcome outcome = RunProc(device->CreateZoomProc(9));
    EXPECT_EQ(outcome.result, ORQ_ERROR);
    EXPECT_EQ(outcome.steps, 1);
    EXPECT_EQ(device->GetZoom(), 5);
    EXPECT_TRUE(device->Notes().empty());
    EXPECT_EQ(Count(Log(), "PTP_ORQM_SetZoom failed"), 1);
}

TEST_F(Zoom, FailedEventPollEndsTheWait) {
    LensAt(5);
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor,
                                         orq::ORQM_GetEvents, orqsim::RC_OperationNotSupported));
    ProcOutcome outcome = RunProc(device->CreateZoomProc(100));
    EXPECT_EQ(outcome.result, ORQ_ERROR);
    EXPECT_EQ(outcome.steps, 2);
    EXPECT_EQ(device->GetZoom(), 5);
    EXPECT_TRUE(device->Notes().empty());
    EXPECT_TRUE(InOrder(Log(), {"PTP_ORQM_GetEvents failed", "PTPLoadEvents() failed"}));
}

TEST_F(Zoom, PollFollowsTheLensMovedOnTheCamera) {
    camera->SetZoomPosition(7);
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 7);
    EXPECT_TRUE(InOrder(Log(), {"zoom changed from camera: 7", "zoom changed: 7"}));
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);  // no change, no report
    EXPECT_EQ(device->Notes(), (Strings{"zoom changed"}));

    // A step beyond the lens counts as its end.
    camera->SetZoomPosition(400);
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 125);
}

TEST_F(Zoom, FailedReadIsReturnedAndKeepsTheZoom) {
    LensAt(4);
    camera->SetZoomPosition(9);
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, orq::ORQM_GetZoom,
                                         orqsim::RC_OperationNotSupported));
    EXPECT_EQ(device->UpdateZoom(), ORQ_ERROR);
    EXPECT_EQ(device->GetZoom(), 4);
    EXPECT_TRUE(InOrder(Log(), {"PTP_ORQM_GetZoom failed", "Get zoom failed"}));
}

TEST_F(Zoom, WithoutZoomTheCameraIsNotAskedButStepZeroIsSent) {
    device->SetMaxZoom(0);
    device->SetZoomCache(3);
    camera->SetZoomPosition(6);
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 0);
    EXPECT_EQ(Ops(orq::ORQM_GetZoom), 0u);
    EXPECT_EQ(RunProc(device->CreateZoomProc(8)).result, ORQ_OK);
    EXPECT_EQ(Params(orq::ORQM_SetZoom), std::vector<int32_t>{0});
}

}  // namespace
}  // namespace controlstest
