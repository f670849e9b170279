// The two shoot chains on a virtual camera: the normal shot found by comparing listings, and the
// remote shot buffered in host memory under negative ids.
#include "tests/capture/capture_support.h"

namespace capturetest {
namespace {

using ShootTest = CaptureTest;

TEST_F(ShootTest, CardIsListedUntilTheNewFileAppearsAtMostFiveTimes) {
    camera->SetShotFileDelay(2);
    ASSERT_EQ(Shoot(), ORQ_OK);
    const auto newest = camera->Files().back();
    ASSERT_EQ(device->shots.size(), 1u);
    const OrqFileInfo shot = device->shots[0];
    EXPECT_EQ(shot.id, static_cast<int32_t>(newest.handle));
    EXPECT_EQ(Narrow(shot.name), orq::platform::ToUtf8(newest.name));
    EXPECT_EQ(shot.size, newest.bytes->size());
    auto log = Log();
    EXPECT_TRUE(InOrder(
        log, {"Shoot started on camera", "Shoot transaction", "Shoot: new file not found. Retry: 1",
              "Shoot: new file not found. Retry: 2", "Shoot Completed:"}));
    EXPECT_EQ(Count(log, "Shoot: new file not found. Retry: 3"), 0);
    EXPECT_NE(RawLog().find("    name: " + Narrow(shot.name)), std::string::npos);
    EXPECT_EQ(Ops(orq::ORQM_Shoot), 1u);
    EXPECT_EQ(Ops(orq::ORQM_RemoteCaptureStart), 0u);
    EXPECT_FALSE(device->previewSuspended);

    camera->SetShotProducesFile(false);
    logStart = linktest::LogSize();
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    EXPECT_EQ(device->shots.size(), 1u);
    log = Log();
    EXPECT_TRUE(InOrder(log, {"Shoot: new file not found. Retry: 4", "Shoot: new file not found"}));
    EXPECT_EQ(Count(log, "Shoot: new file not found. Retry: 5"), 0);
    EXPECT_EQ(Count(log, "PTPUpdateObjectsInfo"), 1 + 5);
    // A failed shot leaves the preview suspended: the session ends anyway.
    EXPECT_TRUE(device->previewSuspended);
}

struct SlowShootTest : CaptureTest {
    SlowShootTest() { options.shootMs = 300; }
};

TEST_F(SlowShootTest, StaleShootFinishedDoesNotEndTheWait) {
    // A SHOOT_FINISHED left over from before, seen by some other wait.
    camera->RaiseEvents(orq::SHOOT_FINISHED);
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    ASSERT_TRUE(device->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));

    ASSERT_EQ(Shoot(), ORQ_OK);
    // Taken for the end of this shot, the stale flag would have listed the card too early.
    EXPECT_EQ(Count(Log(), "Shoot: new file not found. Retry: 1"), 0);
    EXPECT_GE(Ops(orq::ORQM_GetEvents), 3u);
    EXPECT_EQ(device->shots.size(), 1u);
}

TEST_F(ShootTest, RemotePicturesAreBufferedUnderFallingIdsUntilRemoved) {
    device->SetDirectTransfer(0);
    const auto picture = Pattern(10000, 3);
    camera->SetRemotePicture(picture);
    ASSERT_EQ(Shoot(), ORQ_OK);
    ASSERT_EQ(device->shots.size(), 1u);
    EXPECT_EQ(device->shots[0].id, -100);
    EXPECT_EQ(Narrow(device->shots[0].name), "direct_100.jpg");
    EXPECT_EQ(device->shots[0].size, 10000u);
    EXPECT_TRUE(InOrder(
        Log(), {"Shoot started on camera (remote version)", "Shoot transaction (remote version)",
                "Remote capture ready", "RemoteCaptureGetData: 0 1 10000", "total chunks: 1",
                "RemoteCaptureGetData: 4000 1 10000", "total chunks: 2",
                "RemoteCaptureGetData: 8000 0 10000", "total chunks: 3",
                "Total DirectTransfer buffered files: 1", "Direct Shoot Completed:"}));
    EXPECT_EQ(Ops(orq::ORQM_Shoot), 0u);  // nothing went to the card
    EXPECT_FALSE(device->previewSuspended);

    // A buffered file downloads as often as asked, its chunks in arrival order.
    const auto target = Target("direct.jpg");
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(device->PTPDownloadFile(-100, target), ORQ_OK);
        EXPECT_EQ(ReadAll(target), Text(picture));
    }
    EXPECT_EQ(device->downloads.size(), 2u);
    EXPECT_EQ(Count(Log(), "DirectTransfer download file completed:"), 2);

    ASSERT_EQ(device->PTPRemoveFile(-100), ORQ_OK);
    EXPECT_EQ(Count(Log(), "PTPRemoveFile: DirectTransfer -100"), 1);
    EXPECT_EQ(device->BufferedFiles(), 0u);
    EXPECT_EQ(device->PTPRemoveFile(-100), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTPRemoveFile: DirectTransfer FileId not found!"), 1);
    EXPECT_EQ(device->PTPDownloadFile(-100, target), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTPDownloadFile: DirectTransfer FileId not found!"), 1);
    EXPECT_EQ(device->downloads.size(), 2u);

    // Ids are never reused; a picture within one chunk comes in one piece.
    camera->SetRemotePicture(Pattern(3000, 9));
    ASSERT_EQ(Shoot(), ORQ_OK);
    EXPECT_EQ(device->shots.back().id, -101);
    EXPECT_TRUE(InOrder(Log(), {"RemoteCaptureGetData: 0 0 3000", "total chunks: 1",
                                "Total DirectTransfer buffered files: 1"}));
}

TEST_F(ShootTest, FailedRemoteTransferUsesNoIdAndAnEmptyChunkIsKept) {
    device->SetDirectTransfer(0);
    const auto picture = Pattern(8000, 5);
    camera->SetRemotePicture(picture);
    Fault fault = Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor,
                                   orq::ORQM_RemoteCaptureGetData, 0x2019);
    fault.skip = 1;
    camera->InjectFault(fault);
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_ORQM_RemoteCaptureGetData failed"), 1);
    EXPECT_EQ(device->BufferedFiles(), 0u);
    EXPECT_TRUE(device->shots.empty());
    ASSERT_EQ(device->PTPReset(), ORQ_OK);

    // The first chunk arrives empty with "more" set; the camera's second chunk follows.
    orqsim::Bytes reply = linktest::Container(2, orq::PTP_OC_Vendor);
    orqsim::Bytes response = linktest::Container(3, 0x2001, linktest::Words({0, 1, 0}));
    reply.insert(reply.end(), response.begin(), response.end());
    camera->InjectFault(linktest::Raw(orq::PTP_OC_Vendor, orq::ORQM_RemoteCaptureGetData, reply));
    ASSERT_EQ(Shoot(), ORQ_OK);
    ASSERT_EQ(device->shots.size(), 1u);
    EXPECT_EQ(device->shots[0].id, -100);
    EXPECT_EQ(device->shots[0].size, 4000u);
    EXPECT_TRUE(InOrder(Log(), {"RemoteCaptureGetData: 0 1 0", "total chunks: 1",
                                "RemoteCaptureGetData: 4000 0 8000", "total chunks: 2"}));
    const auto target = Target("tail.jpg");
    ASSERT_EQ(device->PTPDownloadFile(-100, target), ORQ_OK);
    EXPECT_EQ(ReadAll(target), std::string(picture.begin() + 4000, picture.end()));
}

}  // namespace
}  // namespace capturetest
