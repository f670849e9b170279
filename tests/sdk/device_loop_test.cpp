#include "Device.h"
#include "tests/support/support.h"

using namespace orqtest;

// The recorders outlive the test body: termination in TearDown may still deliver to them.
class DeviceLoopTest : public SdkTest {
protected:
    Recorder recorders[3];
};

TEST_F(DeviceLoopTest, ZoomRequestsQueuedBehindAnOperationCollapse) {
    auto camera = StartWithSession();
    OrqCameraErrorSubscribe(session, Recorder::OnCameraError, &recorders[0]);
    size_t start = LogSize();
    camera->ClearOperations();
    ASSERT_EQ(OrqUpdateAEAF(session), ORQ_OK);  // holds the loop for a second
    ASSERT_TRUE(WaitFor([&] { return camera->CountOperations(0x9999, 148) == 1; }));
    EXPECT_EQ(OrqSetZoom(session, 1), ORQ_OK);
    EXPECT_EQ(OrqSetZoom(session, 2), ORQ_OK);
    EXPECT_EQ(OrqSetZoom(session, 3), ORQ_OK);
    ASSERT_TRUE(WaitFor([&] {
        return CountContaining(LogLinesSince(start), "Main loop: set zoom (next) 3") == 1;
    }));
    auto lines = LogLinesSince(start);
    EXPECT_EQ(CountContaining(lines, "Main loop: set zoom 1"), 1);
    EXPECT_EQ(CountContaining(lines, "Main loop: set zoom (next) 2"), 1);
    EXPECT_EQ(CountContaining(lines, "Main loop: set zoom 2"), 0);
    EXPECT_TRUE(recorders[0].cameraErrors.empty());
}

// Three ways a camera's loop ends, each on a camera of its own under one SDK: a low battery at
// once, a poll failing on a camera still connected and a mode turned that the SDK cannot drive
// after the loop has waited up to 8 s for a removal.
TEST_F(DeviceLoopTest, ACameraLoopEndsOnLowBatteryFailedPollsOrAnUnsupportedMode) {
    const struct {
        std::function<void(orqsim::VirtualCamera&)> fault;
        OrqResult code;
    } cases[] = {
        {[](orqsim::VirtualCamera& c) { c.SetBattery(3000, 4200, 3400); },  // below minimum + 20 %
         ORQ_BATTERY_LOW},
        {[](orqsim::VirtualCamera& c) {
             Fault poll = Fault::Operation(Fault::ResponseCode, 0x9999, 129, 0x2005);  // reads
             poll.times = -1;
             c.InjectFault(poll);
         },
         ORQ_ERROR},
        {[](orqsim::VirtualCamera& c) { c.SetModeWheel(0x7FFF); }, ORQ_ERROR},
    };
    std::vector<std::shared_ptr<orqsim::VirtualCamera>> cameras;
    for (size_t i = 0; i < std::size(cases); ++i) cameras.push_back(Plug());
    Start();
    std::vector<OrqSessionHandle> sessions;
    for (size_t i = 0; i < std::size(cases); ++i) {
        sessions.push_back(Open(cameras[i]));
        OrqCameraErrorSubscribe(sessions[i], Recorder::OnCameraError, &recorders[i]);
        cases[i].fault(*cameras[i]);
    }
    for (size_t i = 0; i < std::size(cases); ++i) {
        ASSERT_TRUE(recorders[i].Await(recorders[i].cameraErrors, 1, 14000)) << i;
        EXPECT_EQ(recorders[i].cameraErrors[0], cases[i].code) << i;
        EXPECT_EQ(OrqShoot(sessions[i]), cases[i].code) << i;
    }
    // Calls that run no check still answer.
    EXPECT_EQ(OrqSetPreviewState(sessions[0], 1), ORQ_OK);
}

TEST(DeviceSession, ReadyOnlyWhileTheSessionFlagIsSet) {
    orq::Device device(nullptr, nullptr, u"orqsim://none", 1);
    EXPECT_EQ(device.CheckSessionOpen(), ORQ_ERROR);
    device.SessionFlag()->store(true);
    EXPECT_EQ(device.CheckSessionOpen(), ORQ_OK);
}
