// Download and removal of card files, video recording and memory statistics on a virtual camera.
#include <cstdio>

#include "tests/capture/capture_support.h"

namespace capturetest {
namespace {

using FilesTest = CaptureTest;

TEST_F(FilesTest, CardFileIsWrittenByteForByteAndReported) {
    const auto bytes = Pattern(3 * 1024 * 1024 + 17);
    const auto handle = static_cast<int32_t>(camera->AddFile(u"IMG_0005.JPG", bytes));
    const auto target = Target("card.jpg");
    ASSERT_EQ(device->PTPDownloadFile(handle, target), ORQ_OK);
    EXPECT_EQ(ReadAll(target), Text(bytes));
    ASSERT_EQ(device->downloads.size(), 1u);
    EXPECT_EQ(device->downloads[0], std::make_pair(static_cast<int>(handle), target));
    EXPECT_NE(RawLog().find("    path: " + orq::platform::ToUtf8(target)), std::string::npos);
    // The file stays on the card; no snapshot was asked for.
    EXPECT_TRUE(camera->FileBytes(handle));
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 0u);
    std::remove(orq::platform::ToUtf8(target).c_str());

    // An unknown file fails with no report and no file.
    std::string contents;
    EXPECT_EQ(device->PTPDownloadFile(9999, Target("missing.jpg")), ORQ_ERROR);
    EXPECT_FALSE(orq::platform::ReadFile(Target("missing.jpg"), contents));
    EXPECT_EQ(device->downloads.size(), 1u);
    // A target that cannot be written still counts as downloaded.
    const auto nowhere = folder + u"no_such_folder" + orq::platform::PathSeparator() + u"x.jpg";
    EXPECT_EQ(device->PTPDownloadFile(handle, nowhere), ORQ_OK);
    EXPECT_FALSE(orq::platform::ReadFile(nowhere, contents));
    EXPECT_EQ(device->downloads.size(), 2u);
    EXPECT_EQ(Count(Log(), "Download file completed:"), 2);
}

TEST_F(FilesTest, RemovedCardFileStaysInTheTableUntilTheNextListing) {
    const auto handle = static_cast<int32_t>(camera->AddFile(u"IMG_0007.JPG", Pattern(100)));
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    OrqFileInfo file{};
    ASSERT_EQ(device->PTPRemoveFile(handle), ORQ_OK);
    EXPECT_FALSE(camera->FileBytes(handle));
    EXPECT_TRUE(device->FindFile(handle, file));
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    EXPECT_FALSE(device->FindFile(handle, file));
    EXPECT_EQ(device->PTPRemoveFile(handle), ORQ_ERROR);
}

// --- Video -------------------------------------------------------------------------------------

using VideoTest = CaptureTest;

TEST_F(VideoTest, StopReportsTheNewMovieAndShotsAreRefusedMeanwhile) {
    // A movie already on the card is not the new one.
    camera->AddFile(u"MVI_0001.MOV", Pattern(500));
    ASSERT_EQ(device->PTPStartVideo(), ORQ_OK);
    EXPECT_TRUE(device->IsVideoRecording());

    // Shots queued before the recording began meet it in either chain.
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    device->SetDirectTransfer(0);
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    device->SetDirectTransfer(1);
    EXPECT_EQ(Count(Log(), "Shooting not supported: video recording started"), 2);
    EXPECT_EQ(Ops(orq::ORQM_Shoot) + Ops(orq::ORQM_RemoteCaptureStart), 0u);

    std::this_thread::sleep_for(30ms);
    OrqFileInfo movie{};
    ASSERT_EQ(device->PTPStopVideo(&movie), ORQ_OK);
    EXPECT_FALSE(device->IsVideoRecording());
    const auto newest = camera->Files().back();
    EXPECT_EQ(movie.id, static_cast<int32_t>(newest.handle));
    EXPECT_NE(Narrow(movie.name), "MVI_0001.MOV");
    EXPECT_EQ(movie.size, newest.bytes->size());

    EXPECT_EQ(Shoot(), ORQ_OK);
}

TEST_F(VideoTest, RefusedStartEndsTheRecordingARefusedStopDoesNot) {
    camera->InjectFault(
        Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, orq::ORQM_StartVideo, 0x2019));
    EXPECT_EQ(device->PTPStartVideo(), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_ORQM_StartVideo failed"), 1);
    EXPECT_FALSE(device->IsVideoRecording());
    // The camera acted on the command before refusing it; a reset puts it back to rest.
    ASSERT_EQ(device->PTPReset(), ORQ_OK);
    EXPECT_EQ(Shoot(), ORQ_OK);

    ASSERT_EQ(device->PTPStartVideo(), ORQ_OK);
    camera->InjectFault(
        Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, orq::ORQM_StopVideo, 0x2019));
    OrqFileInfo untouched{};
    untouched.id = 77;
    EXPECT_EQ(device->PTPStopVideo(&untouched), ORQ_ERROR);
    EXPECT_EQ(untouched.id, 77);
    EXPECT_TRUE(device->IsVideoRecording());
}

// --- Memory statistics ---------------------------------------------------------------------------

TEST_F(FilesTest, SnapshotsFollowTheFlowWhenAskedForAndNeverFailIt) {
    device->memLogging = true;
    camera->SetShotFileDelay(1);
    ASSERT_EQ(Shoot(), ORQ_OK);
    const int32_t id = device->shots.at(0).id;
    ASSERT_EQ(device->PTPDownloadFile(id, Target("shot.jpg")), ORQ_OK);
    ASSERT_EQ(device->PTPRemoveFile(id), ORQ_OK);
    EXPECT_TRUE(InOrder(
        Log(),
        {"0x10300 memory: SHOOT_FINISHED event", "0x10300 memory: after PTPUpdateObjectsInfo",
         "0x10300 memory: after PTPUpdateObjectsInfo", "0x10300 memory: after PTP_OC_GetObject",
         "0x10300 memory: after PTP_OC_DeleteObject"}));
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 5u);
    // The model's record address and the record's size; the last snapshot is the last operation.
    EXPECT_EQ(camera->Operations().back().params,
              (std::vector<uint32_t>{orq::CHDK_GetMemory, 0x10300, 36}));
    // The address goes with the whole model code.
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"SX1600"), 0x10364u);
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"sx160"), 0x10364u);

    // A short answer costs nothing but zeros, a refused one only its line.
    logStart = linktest::LogSize();
    camera->InjectFault(linktest::Raw(orq::PTP_OC_Vendor, orq::CHDK_GetMemory,
                                      linktest::DataThenOk(linktest::Words({1, 2}))));
    device->PTPMemoryStatistics("short");
    // Words past the end of the answer read as zeros.
    EXPECT_NE(RawLog().find("    start address:   2\n"), std::string::npos);
    EXPECT_NE(RawLog().find("    total size:      0\n"), std::string::npos);

    Fault refused =
        Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, orq::CHDK_GetMemory, 0x2019);
    refused.times = 2;
    camera->InjectFault(refused);
    ASSERT_EQ(Shoot(), ORQ_OK);
    EXPECT_EQ(Count(Log(), "PTP_CHDK_GetMemory failed"), 2);
}

}  // namespace
}  // namespace capturetest
