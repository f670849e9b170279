// Zoom and manual focus on a virtual SX160 (zoom steps 0 to 125, 10 ms of lens travel per step,
// polled every 100 ms; the focus lens stops anywhere within a zoom step's list of stops), and the
// walk along such a list.
#include <climits>

#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

using Zoom = ControlsTest;

TEST_F(Zoom, WaitsForTheLensThenCompletesBeforeReportingTheChange) {
    // Just after loading nothing has been reported: even the step the lens is at reports.
    EXPECT_EQ(RunProc(device->CreateZoomProc(0)), ORQ_OK);
    EXPECT_EQ(device->notes, (Strings{"zoom completed", "zoom changed"}));
    Mark();
    // The finish bit that zoom left must not end the next wait: 30 steps take 300 ms, the
    // command and at least three polls.
    ASSERT_TRUE(device->CameraEvent(orq::CAMERA_EVENT_ZOOM_FINISHED));
    int steps = 0;
    EXPECT_EQ(RunProc(device->CreateZoomProc(30), &steps), ORQ_OK);
    EXPECT_GE(steps, 4);
    EXPECT_EQ(Ops(orq::ORQM_GetZoom), 0u);  // the request is taken as the position reached
    EXPECT_EQ(device->GetZoom(), 30);
    EXPECT_TRUE(
        InOrder(Log(), {"Set zoom on camera: 30", "zoom finished for: 30", "zoom changed: 30"}));
    // The same step again still goes to the camera, but reports no change.
    EXPECT_EQ(RunProc(device->CreateZoomProc(30)), ORQ_OK);
    EXPECT_EQ(device->notes, (Strings{"zoom completed", "zoom changed", "zoom completed"}));
    EXPECT_EQ(Ops(orq::ORQM_SetZoom), 2u);
}

TEST_F(Zoom, RequestsAreLimitedToTheLensRangeOrZeroWithoutZoom) {
    EXPECT_EQ(RunProc(device->CreateZoomProc(-7)), ORQ_OK);
    camera->SetZoomPosition(120);  // a short way to the end
    EXPECT_EQ(RunProc(device->CreateZoomProc(1000)), ORQ_OK);
    EXPECT_EQ(camera->ZoomPosition(), 125);
    // Without zoom the camera is not asked where the lens is, and step 0 is sent.
    device->SetMaxZoom(0);
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 0);
    EXPECT_EQ(Ops(orq::ORQM_GetZoom), 0u);
    EXPECT_EQ(RunProc(device->CreateZoomProc(8)), ORQ_OK);
    EXPECT_EQ(Params(orq::ORQM_SetZoom), (std::vector<int32_t>{0, 125, 0}));
}

// The end of the travel went with an event read lost to a general error: the lens tells.
TEST_F(Zoom, AnEndLostWithAnEventReadIsFoundAtTheLens) {
    auto proc = device->CreateZoomProc(30);
    std::chrono::milliseconds delay(0);
    OrqResult result = ORQ_OK;
    bool again = false;
    proc->step(proc.get(), &delay, &result, &again);
    ASSERT_TRUE(WaitFor([&] { return camera->ZoomPosition() == 30; }));
    camera->InjectFault(
        Fault::Operation(Fault::GeneralError, orq::PTP_OC_Vendor, orq::ORQM_GetEvents));
    EXPECT_EQ(RunProc(std::move(proc)), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 30);
}

TEST(FocusTable, WalksFromTheNearestStopOfTheZoomStepsList) {
    const orq::FocusTable table = {{10, 20, 30, 40}, {100, 200, 300}};
    const struct {
        int32_t zoom, focus, shift, target;
    } cases[] = {
        // Beside the walks the device test makes: ties, ends, zoom steps and overflow.
        {0, 25, 1, 40},                                  // a tie keeps the farther stop
        {0, 5, 1, 20},          {0, 50, -1, 30},         // outside the list
        {7, 100, 1, 200},       {-3, 20, 1, 30},         // zoom beyond the lists: the nearest list
        {0, 20, INT32_MAX, -1}, {0, 20, INT32_MIN, 10},  // no overflow; the near end holds
        {0, -1, INT32_MIN, 10}, {0, INT32_MAX, -1, 30},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(orq::DeviceLL::NextFocusPosition(table, c.zoom, c.focus, c.shift), c.target)
            << "zoom " << c.zoom << " focus " << c.focus << " shift " << c.shift;
    }
}

using Focus = ControlsTest;

TEST_F(Focus, SetGoesAsAskedAndShiftWalksTheCurrentZoomStepsListOneMoveAtItsEnds) {
    camera->SetZoomPosition(50);
    ASSERT_EQ(device->UpdateZoom(), ORQ_OK);
    const auto& stops = device->Config().focusTable.at(50);
    ASSERT_NE(stops, device->Config().focusTable.at(0));
    Mark();
    EXPECT_EQ(device->SetFocus(stops[10] + 1), ORQ_OK);  // between two stops: not snapped
    EXPECT_EQ(device->GetFocus(), stops[10] + 1);
    EXPECT_EQ(device->FocusShift(2), ORQ_OK);  // from the nearer stop
    EXPECT_EQ(device->FocusShift(-3), ORQ_OK);
    EXPECT_EQ(device->FocusShift(0), ORQ_OK);  // sends nothing
    // The camera stops short of a position before the list; its answer counts.
    EXPECT_EQ(device->SetFocus(stops[0] - 50), ORQ_OK);
    EXPECT_EQ(device->GetFocus(), stops[0]);
    EXPECT_EQ(device->FocusShift(-1), ORQ_OK);  // the near end holds; no change, no report
    EXPECT_EQ(device->SetFocus(-1), ORQ_OK);
    EXPECT_EQ(device->FocusShift(-1), ORQ_OK);  // infinity to the farthest stop
    EXPECT_EQ(device->FocusShift(1), ORQ_OK);   // and off the end again
    EXPECT_EQ(device->FocusShift(1), ORQ_OK);   // nothing lies beyond infinity
    EXPECT_EQ(Params(orq::ORQM_MoveFocusTo),
              (std::vector<int32_t>{stops[10] + 1, stops[12], stops[9], stops[0] - 50, stops[0], -1,
                                    stops.back(), -1, -1}));
    EXPECT_EQ(device->notes.size(), 7u);
}

TEST_F(Focus, StuckLensWidensTheShiftForNineMovesAtMost) {
    const auto& stops = device->Config().focusTable.at(0);
    ASSERT_EQ(device->SetFocus(stops[10]), ORQ_OK);
    Mark();
    camera->SetFocusStuck(true);
    EXPECT_EQ(device->FocusShift(1), ORQ_OK);  // running out of tries is no failure
    EXPECT_EQ(Params(orq::ORQM_MoveFocusTo),
              std::vector<int32_t>(stops.begin() + 11, stops.begin() + 20));
    const auto tried = "Focus shift, change shift: 2 (" + std::to_string(stops[11]) + " " +
                       std::to_string(stops[10]) + ")";
    EXPECT_TRUE(InOrder(Log(), {tried, "FocusShift: exit by retry counter"}));
    EXPECT_TRUE(device->notes.empty());
}

TEST_F(ControlsTest, PollsFollowTheLensesAndFailuresKeepZoomAndFocus) {
    camera->SetZoomPosition(7);
    camera->SetFocusPosition(777);
    for (int i = 0; i < 2; ++i) {  // the second finds no change and reports none
        EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
        EXPECT_EQ(device->UpdateFocusPos(), ORQ_OK);
    }
    EXPECT_EQ(device->notes, (Strings{"zoom changed", "focus changed"}));
    EXPECT_TRUE(InOrder(Log(), {"zoom changed from camera: 7", "zoom changed: 7",
                                "focus changed from camera: 777", "focus changed: 777"}));
    camera->SetZoomPosition(400);  // beyond the lens counts as its end
    EXPECT_EQ(device->UpdateZoom(), ORQ_OK);
    EXPECT_EQ(device->GetZoom(), 125);
    Mark();

    // A failed zoom command or event read ends the zoom at once.
    int steps = 0;
    InjectFailure(orq::ORQM_SetZoom);
    EXPECT_EQ(RunProc(device->CreateZoomProc(100), &steps), ORQ_ERROR);
    EXPECT_EQ(steps, 1);
    InjectFailure(orq::ORQM_GetEvents);
    EXPECT_EQ(RunProc(device->CreateZoomProc(100), &steps), ORQ_ERROR);
    EXPECT_EQ(steps, 2);  // the command, then the first poll
    InjectFailure(orq::ORQM_GetZoom);
    EXPECT_EQ(device->UpdateZoom(), ORQ_ERROR);
    InjectFailure(orq::ORQM_GetFocusParams);
    EXPECT_EQ(device->UpdateFocusPos(), ORQ_ERROR);
    InjectFailure(orq::ORQM_MoveFocusTo);
    EXPECT_EQ(device->FocusShift(1), ORQ_ERROR);
    EXPECT_EQ(device->GetZoom(), 125);
    EXPECT_EQ(device->GetFocus(), 777);
    EXPECT_TRUE(device->notes.empty());
    EXPECT_TRUE(
        InOrder(Log(), {"PTP_ORQM_SetZoom failed", "PTP_ORQM_GetEvents failed",
                        "PTPLoadEvents() failed", "PTP_ORQM_GetZoom failed", "Get zoom failed",
                        "PTP_ORQM_GetFocusParams failed", "PTPManualFocusGetParams failed",
                        "PTP_ORQM_MoveFocusTo failed", "PTPManualFocusSet failed"}));
}

class NoManualFocus : public ControlsTest {
protected:
    NoManualFocus() { options.model = "A1400"; }
};

TEST_F(NoManualFocus, PollSkipsFocusAndShiftSendsZero) {
    EXPECT_EQ(device->UpdateFocusPos(), ORQ_UNKNOWN_PROPERTY);
    EXPECT_EQ(Ops(orq::ORQM_GetFocusParams), 0u);
    EXPECT_EQ(device->FocusShift(3), ORQ_OK);
    EXPECT_EQ(Params(orq::ORQM_MoveFocusTo), std::vector<int32_t>{0});
}

}  // namespace
}  // namespace controlstest
