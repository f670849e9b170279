// The two shoot chains on a virtual camera: the normal shot found by comparing listings, and the
// remote shot buffered in host memory under negative ids.
#include "tests/capture/capture_support.h"

namespace capturetest {
namespace {

using linktest::Fault;
using linktest::InOrder;

class ShootTest : public CaptureTest {
protected:
    ProcOutcome Shoot() {
        return RunProc(device->Shoot([this](OrqFileInfo file) { device->OnShootCompleted(file); }));
    }
};

TEST_F(ShootTest, NewFileAtTheThirdListingEndsTheShot) {
    camera->SetShotFileDelay(2);
    ProcOutcome outcome = Shoot();
    ASSERT_EQ(outcome.result, ORQ_OK);

    const auto files = camera->Files();
    ASSERT_FALSE(files.empty());
    const auto shots = device->Shots();
    ASSERT_EQ(shots.size(), 1u);
    EXPECT_EQ(shots[0].id, static_cast<int32_t>(files.back().handle));
    EXPECT_EQ(Narrow(shots[0].name), orq::platform::ToUtf8(files.back().name));
    EXPECT_EQ(shots[0].size, files.back().bytes->size());

    const auto log = Log();
    EXPECT_TRUE(InOrder(
        log, {"Shoot started on camera", "Shoot transaction", "Shoot: new file not found. Retry: 1",
              "Shoot: new file not found. Retry: 2", "Shoot Completed:"}));
    EXPECT_EQ(Count(log, "Shoot: new file not found. Retry: 3"), 0);
    EXPECT_NE(RawLog().find("    name: " + Narrow(shots[0].name)), std::string::npos);
    // Two retries of 500 ms each; the remote chain was not used.
    EXPECT_GE(outcome.elapsed, 1000ms);
    EXPECT_EQ(Ops(orq::ORQM_Shoot), 1u);
    EXPECT_EQ(Ops(orq::ORQM_RemoteCaptureStart), 0u);
    EXPECT_FALSE(device->previewSuspended);
}

TEST_F(ShootTest, FileThatNeverAppearsFailsAfterFiveListings) {
    camera->SetShotProducesFile(false);
    ProcOutcome outcome = Shoot();
    EXPECT_EQ(outcome.result, ORQ_ERROR);
    EXPECT_TRUE(device->Shots().empty());

    const auto log = Log();
    EXPECT_TRUE(
        InOrder(log, {"Shoot: new file not found. Retry: 1", "Shoot: new file not found. Retry: 2",
                      "Shoot: new file not found. Retry: 3", "Shoot: new file not found. Retry: 4",
                      "Shoot: new file not found"}));
    EXPECT_EQ(Count(log, "Shoot: new file not found. Retry: 5"), 0);
    EXPECT_EQ(Count(log, "PTPUpdateObjectsInfo"), 1 + 5);
    EXPECT_GE(outcome.elapsed, 2000ms);
    // A failed shot leaves the preview suspended: the session ends anyway.
    EXPECT_TRUE(device->previewSuspended);
}

class SlowShootTest : public ShootTest {
    orqsim::CameraOptions Options() override {
        orqsim::CameraOptions options;
        options.shootMs = 300;
        return options;
    }
};

TEST_F(SlowShootTest, StaleShootFinishedDoesNotEndTheWait) {
    // A SHOOT_FINISHED left over from before, seen by some other wait.
    camera->RaiseEvents(orq::SHOOT_FINISHED);
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    ASSERT_TRUE(device->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));

    ProcOutcome outcome = Shoot();
    ASSERT_EQ(outcome.result, ORQ_OK);
    // Taken for the end of this shot, the stale flag would have listed the card too early.
    EXPECT_EQ(Count(Log(), "Shoot: new file not found. Retry: 1"), 0);
    EXPECT_GE(Ops(orq::ORQM_GetEvents), 3u);
    EXPECT_EQ(device->Shots().size(), 1u);
}

class ShootWithoutDirectTransfer : public ShootTest {
    orqsim::CameraOptions Options() override {
        orqsim::CameraOptions options;
        options.model = "A4000";
        return options;
    }
};

TEST_F(ShootWithoutDirectTransfer, ModelWithoutThePropertyAlwaysShootsNormally) {
    ASSERT_FALSE(device->Config().Has(orq::PROP_DIRECT_TRANSFER));
    device->SetDirectTransfer(0);
    ProcOutcome outcome = Shoot();
    ASSERT_EQ(outcome.result, ORQ_OK);
    // SHOOT_FINISHED at the first poll: the waiting step ran once.
    EXPECT_EQ(outcome.steps, 2);
    EXPECT_EQ(Ops(orq::ORQM_Shoot), 1u);
    EXPECT_EQ(Ops(orq::ORQM_RemoteCaptureStart), 0u);
}

class DirectShootTest : public ShootTest {
protected:
    orqsim::CameraOptions Options() override {
        orqsim::CameraOptions options;
        options.remoteChunkSize = 4000;
        return options;
    }
    void SetUp() override {
        ShootTest::SetUp();
        device->SetDirectTransfer(0);
        cardBefore = camera->Files().size();
    }
    size_t cardBefore = 0;
};

TEST_F(DirectShootTest, PicturesAreBufferedUnderFallingIdsUntilRemoved) {
    const auto first = Pattern(10000, 3);
    camera->SetRemotePicture(first);
    ASSERT_EQ(Shoot().result, ORQ_OK);
    // A picture within one chunk.
    const auto second = Pattern(3000, 9);
    camera->SetRemotePicture(second);
    ASSERT_EQ(Shoot().result, ORQ_OK);

    const auto shots = device->Shots();
    ASSERT_EQ(shots.size(), 2u);
    EXPECT_EQ(shots[0].id, -100);
    EXPECT_EQ(Narrow(shots[0].name), "direct_100.jpg");
    EXPECT_EQ(shots[0].size, 10000u);
    EXPECT_EQ(shots[1].id, -101);
    EXPECT_EQ(Narrow(shots[1].name), "direct_101.jpg");
    EXPECT_EQ(shots[1].size, 3000u);
    EXPECT_EQ(device->BufferedFiles(), 2u);

    const auto log = Log();
    EXPECT_TRUE(InOrder(
        log, {"Shoot started on camera (remote version)", "Shoot transaction (remote version)",
              "Remote capture ready", "RemoteCaptureGetData: 0 1 10000", "total chunks: 1",
              "RemoteCaptureGetData: 4000 1 10000", "total chunks: 2",
              "RemoteCaptureGetData: 8000 0 10000", "total chunks: 3",
              "Total DirectTransfer buffered files: 1",
              "Direct Shoot Completed:", "RemoteCaptureGetData: 0 0 3000", "total chunks: 1",
              "Total DirectTransfer buffered files: 2"}));
    // Nothing went to the card, nothing was listed after the start.
    EXPECT_EQ(camera->Files().size(), cardBefore);
    EXPECT_EQ(Ops(orq::ORQM_Shoot), 0u);
    EXPECT_FALSE(device->previewSuspended);

    // A buffered file downloads as often as asked, in arrival order of its chunks.
    const auto target = Target("direct.jpg");
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(device->PTPDownloadFile(-100, target), ORQ_OK);
        EXPECT_EQ(ReadAll(target), std::string(first.begin(), first.end()));
    }
    EXPECT_EQ(device->Downloads().size(), 2u);
    EXPECT_EQ(Count(Log(), "DirectTransfer download file completed:"), 2);

    ASSERT_EQ(device->PTPRemoveFile(-100), ORQ_OK);
    EXPECT_EQ(Count(Log(), "PTPRemoveFile: DirectTransfer -100"), 1);
    EXPECT_EQ(device->BufferedFiles(), 1u);
    EXPECT_EQ(device->PTPRemoveFile(-100), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTPRemoveFile: DirectTransfer FileId not found!"), 1);
    EXPECT_EQ(device->PTPDownloadFile(-100, target), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTPDownloadFile: DirectTransfer FileId not found!"), 1);
    EXPECT_EQ(device->Downloads().size(), 2u);

    // Ids are never reused.
    ASSERT_EQ(Shoot().result, ORQ_OK);
    EXPECT_EQ(device->Shots().back().id, -102);
}

TEST_F(DirectShootTest, EmptyChunkIsKeptAndTheStreamGoesOn) {
    const auto picture = Pattern(8000, 5);
    camera->SetRemotePicture(picture);
    // The first chunk arrives empty with "more" set; the camera's second chunk follows.
    orqsim::Bytes reply = linktest::Container(2, orq::PTP_OC_Vendor);
    orqsim::Bytes response = linktest::Container(3, 0x2001, linktest::Words({0, 1, 0}));
    reply.insert(reply.end(), response.begin(), response.end());
    camera->InjectFault(linktest::Raw(orq::PTP_OC_Vendor, orq::ORQM_RemoteCaptureGetData, reply));

    ASSERT_EQ(Shoot().result, ORQ_OK);
    const auto shots = device->Shots();
    ASSERT_EQ(shots.size(), 1u);
    EXPECT_EQ(shots[0].size, 4000u);
    EXPECT_TRUE(InOrder(Log(), {"RemoteCaptureGetData: 0 1 0", "total chunks: 1",
                                "RemoteCaptureGetData: 4000 0 8000", "total chunks: 2"}));
    const auto target = Target("tail.jpg");
    ASSERT_EQ(device->PTPDownloadFile(-100, target), ORQ_OK);
    EXPECT_EQ(ReadAll(target), std::string(picture.begin() + 4000, picture.end()));
}

TEST_F(DirectShootTest, FailedTransferUsesNoIdAndKeepsNothing) {
    camera->SetRemotePicture(Pattern(10000));
    Fault fault = Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor,
                                   orq::ORQM_RemoteCaptureGetData, 0x2019);
    fault.skip = 1;
    camera->InjectFault(fault);
    EXPECT_EQ(Shoot().result, ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_ORQM_RemoteCaptureGetData failed"), 1);
    EXPECT_EQ(device->BufferedFiles(), 0u);
    EXPECT_TRUE(device->Shots().empty());

    ASSERT_EQ(device->PTPReset(), ORQ_OK);
    ASSERT_EQ(Shoot().result, ORQ_OK);
    EXPECT_EQ(device->Shots().at(0).id, -100);
}

class SlowDirectShootTest : public DirectShootTest {
    orqsim::CameraOptions Options() override {
        orqsim::CameraOptions options = DirectShootTest::Options();
        options.remoteReadyMs = 400;
        return options;
    }
};

TEST_F(SlowDirectShootTest, ReadinessIsPolledBackToBack) {
    ProcOutcome outcome = Shoot();
    ASSERT_EQ(outcome.result, ORQ_OK);
    // 100 ms after the start, then one poll per step with no delay between them.
    size_t polls = Ops(orq::ORQM_RemoteCaptureIsReady);
    EXPECT_GE(polls, 2u);
    ASSERT_EQ(outcome.delays.size(), polls);
    EXPECT_EQ(outcome.delays[0], 100ms);
    for (size_t i = 1; i < outcome.delays.size(); ++i) EXPECT_EQ(outcome.delays[i], 0ms);
    EXPECT_EQ(Count(Log(), "Remote capture ready"), 1);
}

}  // namespace
}  // namespace capturetest
