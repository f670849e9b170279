#include "Device.h"
#include "tests/support/support.h"

using namespace orqtest;

namespace {

class DeviceLoopTest : public SdkTest {
protected:
    void StartWith(const char* model) {
        camera = OrqSimAttachCamera(model);
        Start();
        auto cameras = Cameras();
        ASSERT_EQ(cameras.size(), 1u);
        session = Open(cameras[0].id);
        errors = OrqCameraErrorSubscribe(session, Recorder::OnCameraError, &recorder);
    }
    void TearDown() override {
        OrqFree(errors);
        OrqFree(session);
        SdkTest::TearDown();
    }
    OrqSimCamera camera = 0;
    OrqSubscription errors = nullptr;
    Recorder recorder;
};

}  // namespace

TEST_F(DeviceLoopTest, ZoomRequestsQueuedBehindAnOperationCollapse) {
    StartWith("SX160");
    size_t start = LogSize();
    OrqSimClearOperations(camera);
    ASSERT_EQ(OrqUpdateAEAF(session), ORQ_OK);  // holds the loop for a second
    ASSERT_TRUE(WaitFor([&] { return OrqSimCountOperations(camera, 0x9999, 148) == 1; }));
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
    EXPECT_TRUE(recorder.cameraErrors.empty());
}

TEST_F(DeviceLoopTest, LowBatteryEndsTheLoopWithoutWaiting) {
    StartWith("SX160");
    OrqSimSetBattery(camera, 3000, 4200, 3400);  // below minimum + 20 %
    ASSERT_TRUE(recorder.Await(recorder.cameraErrors, 1, 4000));
    EXPECT_EQ(recorder.cameraErrors[0], ORQ_BATTERY_LOW);
    EXPECT_EQ(OrqShoot(session), ORQ_BATTERY_LOW);
    // Calls that run no check still answer.
    EXPECT_EQ(OrqSetPreviewState(session, 1), ORQ_OK);
}

TEST_F(DeviceLoopTest, AFailedPollOnAConnectedCameraKeepsItsCode) {
    StartWith("SX160");
    OrqSimFault fault{};
    fault.kind = ORQSIM_RESPONSE_CODE;
    fault.opcode = 0x9999;
    fault.subCommand = 129;  // property reads of the poll
    fault.times = -1;
    fault.value = 0x2005;
    ASSERT_EQ(OrqSimInjectFault(camera, &fault), ORQ_OK);
    // The loop waits up to 8 s for a removal before it reports.
    ASSERT_TRUE(recorder.Await(recorder.cameraErrors, 1, 14000));
    EXPECT_EQ(recorder.cameraErrors[0], ORQ_ERROR);
    int value;
    EXPECT_EQ(OrqGetPropertyData(session, 0, &value), ORQ_ERROR);
}

TEST_F(DeviceLoopTest, UnsupportedModeTurnedAtRunTimeEndsTheLoop) {
    StartWith("SX160");
    OrqSimSetModeWheel(camera, 0x7FFF);
    ASSERT_TRUE(recorder.Await(recorder.cameraErrors, 1, 14000));
    EXPECT_EQ(recorder.cameraErrors[0], ORQ_ERROR);
}

TEST(DeviceSession, ReadyOnlyWhileTheSessionFlagIsSet) {
    orq::Device device(nullptr, nullptr, u"orqsim://none", 1);
    EXPECT_EQ(device.CheckSessionOpen(), ORQ_ERROR);
    device.SessionFlag()->store(true);
    EXPECT_EQ(device.CheckSessionOpen(), ORQ_OK);
}
