// Manual focus on a virtual SX160, whose lens stops anywhere within a zoom step's list.
#include "tests/controls/controls_support.h"

namespace controlstest {
namespace {

using linktest::Count;
using linktest::InOrder;

class Focus : public ControlsTest {
protected:
    const std::vector<int32_t>& Stops(int32_t zoomStep) {
        return device->Config().focusTable.at(static_cast<size_t>(zoomStep));
    }
    void StartAt(int32_t position) {
        ASSERT_EQ(device->SetFocus(position), ORQ_OK);
        device->ClearNotes();
        camera->ClearOperations();
        logStart = linktest::LogSize();
    }
    std::vector<int32_t> Moves() { return Params(orq::ORQM_MoveFocusTo); }
};

TEST_F(Focus, SetGoesAsAskedAndKeepsWhereTheLensStopped) {
    const auto& stops = Stops(0);
    ASSERT_GT(stops.size(), 10u);
    StartAt(stops[3]);
    EXPECT_EQ(device->SetFocus(stops[3] + 1), ORQ_OK);  // between two stops: not snapped
    EXPECT_EQ(Moves(), std::vector<int32_t>{stops[3] + 1});
    EXPECT_EQ(device->GetFocus(), stops[3] + 1);

    // The camera stops short of a position before the list; its answer counts.
    EXPECT_EQ(device->SetFocus(stops.front() - 50), ORQ_OK);
    EXPECT_EQ(device->GetFocus(), stops.front());
    EXPECT_EQ(device->SetFocus(stops.front()), ORQ_OK);  // no change, no report
    EXPECT_EQ(device->Notes(), (Strings{"focus changed", "focus changed"}));
    EXPECT_EQ(Count(Log(), "focus changed: " + std::to_string(stops.front())), 1);
}

TEST_F(Focus, ShiftWalksTheListOfTheCurrentZoomStepOneMoveAtItsEnds) {
    camera->SetZoomPosition(50);
    ASSERT_EQ(device->UpdateZoom(), ORQ_OK);
    const auto& stops = Stops(50);
    ASSERT_NE(stops, Stops(0));
    StartAt(stops[10]);
    EXPECT_EQ(device->FocusShift(2), ORQ_OK);
    EXPECT_EQ(device->FocusShift(-3), ORQ_OK);
    EXPECT_EQ(device->FocusShift(0), ORQ_OK);  // sends nothing
    EXPECT_EQ(device->Notes().size(), 2u);

    EXPECT_EQ(device->SetFocus(stops[0]), ORQ_OK);
    EXPECT_EQ(device->FocusShift(-1), ORQ_OK);  // the near end holds
    EXPECT_EQ(device->SetFocus(-1), ORQ_OK);
    EXPECT_EQ(device->FocusShift(-1), ORQ_OK);  // infinity to the farthest stop
    EXPECT_EQ(device->FocusShift(1), ORQ_OK);   // and off the end again
    EXPECT_EQ(device->FocusShift(1), ORQ_OK);   // nothing lies beyond infinity
    EXPECT_EQ(Moves(), (std::vector<int32_t>{stops[12], stops[9], stops[0], stops[0], -1,
                                             stops.back(), -1, -1}));
    EXPECT_EQ(device->GetFocus(), -1);
}

TEST_F(Focus, StuckLensWidensTheShiftForNineMovesAtMost) {
    const auto& stops = Stops(0);
    StartAt(stops[10]);
    camera->SetFocusStuck(true);
    EXPECT_EQ(device->FocusShift(1), ORQ_OK);  // running out of tries is no failure
    EXPECT_EQ(Moves(), std::vector<int32_t>(stops.begin() + 11, stops.begin() + 20));
    const auto log = Log();
    EXPECT_EQ(Count(log, "Focus shift, change shift: 2 (" + std::to_string(stops[11]) + " " +
                             std::to_string(stops[10]) + ")"),
              1);
    EXPECT_EQ(Count(log, "FocusShift: exit by retry counter"), 1);
    EXPECT_TRUE(device->Notes().empty());
}

TEST_F(Focus, PollFollowsTheCameraAndFailuresKeepTheFocus) {
    camera->SetFocusPosition(777);
    EXPECT_EQ(device->UpdateFocusPos(), ORQ_OK);
    EXPECT_EQ(device->UpdateFocusPos(), ORQ_OK);  // no change, no report
    EXPECT_EQ(device->GetFocus(), 777);
    EXPECT_EQ(device->Notes(), Strings{"focus changed"});
    EXPECT_TRUE(InOrder(Log(), {"focus changed from camera: 777", "focus changed: 777"}));

    InjectFailure(orq::ORQM_GetFocusParams);
    EXPECT_EQ(device->UpdateFocusPos(), ORQ_ERROR);
    InjectFailure(orq::ORQM_MoveFocusTo);
    EXPECT_EQ(device->FocusShift(1), ORQ_ERROR);
    EXPECT_EQ(device->GetFocus(), 777);
    EXPECT_TRUE(InOrder(Log(), {"PTP_ORQM_GetFocusParams failed", "PTPManualFocusGetParams failed",
                                "PTP_ORQM_MoveFocusTo failed", "PTPManualFocusSet failed"}));
}

class NoManualFocus : public ControlsTest {
protected:
    orqsim::CameraOptions Options() override {
        orqsim::CameraOptions options;
        options.model = "A1400";
        return options;
    }
};

TEST_F(NoManualFocus, PollSkipsFocusAndShiftSendsZero) {
    EXPECT_EQ(device->UpdateFocusPos(), ORQ_UNKNOWN_PROPERTY);
    EXPECT_EQ(Ops(orq::ORQM_GetFocusParams), 0u);
    EXPECT_EQ(device->FocusShift(3), ORQ_OK);
    ASSERT_GE(Params(orq::ORQM_MoveFocusTo).size(), 1u);
    EXPECT_EQ(Params(orq::ORQM_MoveFocusTo).front(), 0);
}

}  // namespace
}  // namespace controlstest
