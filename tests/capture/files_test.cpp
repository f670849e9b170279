// Download and removal of card files, video recording and memory statistics on a virtual camera.
#include <cstdio>

#include "tests/capture/capture_support.h"

namespace capturetest {
namespace {

using linktest::Fault;
using linktest::InOrder;

using FilesTest = CaptureTest;

TEST_F(FilesTest, CardFileIsWrittenByteForByteAndReported) {
    const auto bytes = Pattern(3 * 1024 * 1024 + 17);
    uint32_t handle = camera->AddFile(u"IMG_0005.JPG", bytes);
    const auto target = Target("card.jpg");

    ASSERT_EQ(device->PTPDownloadFile(static_cast<int32_t>(handle), target), ORQ_OK);
    EXPECT_EQ(ReadAll(target), std::string(bytes.begin(), bytes.end()));
    const auto downloads = device->Downloads();
    ASSERT_EQ(downloads.size(), 1u);
    EXPECT_EQ(downloads[0].first, static_cast<int>(handle));
    EXPECT_EQ(downloads[0].second, target);
    EXPECT_EQ(Count(Log(), "Download file completed:"), 1);
    EXPECT_NE(RawLog().find("    path: " + orq::platform::ToUtf8(target)), std::string::npos);
    // The file stays on the card; no snapshot was asked for.
    EXPECT_TRUE(camera->FileBytes(handle));
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 0u);
    std::remove(orq::platform::ToUtf8(target).c_str());
}

TEST_F(FilesTest, TargetThatCannotBeWrittenStillCountsAsDownloaded) {
    uint32_t handle = camera->AddFile(u"IMG_0006.JPG", Pattern(100));
    const auto target = folder + u"no_such_folder" + orq::platform::PathSeparator() + u"x.jpg";

    EXPECT_EQ(device->PTPDownloadFile(static_cast<int32_t>(handle), target), ORQ_OK);
    EXPECT_EQ(Count(Log(), "Download file completed:"), 1);
    EXPECT_EQ(device->Downloads().size(), 1u);
    std::string contents;
    EXPECT_FALSE(orq::platform::ReadFile(target, contents));
}

TEST_F(FilesTest, UnknownCardFileFailsWithoutReportOrFile) {
    const auto target = Target("missing.jpg");
    EXPECT_EQ(device->PTPDownloadFile(9999, target), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_OC_GetObject failed"), 1);
    EXPECT_TRUE(device->Downloads().empty());
    std::string contents;
    EXPECT_FALSE(orq::platform::ReadFile(target, contents));
}

TEST_F(FilesTest, RemovedCardFileStaysInTheTableUntilTheNextListing) {
    uint32_t handle = camera->AddFile(u"IMG_0007.JPG", Pattern(100));
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    OrqFileInfo file{};
    ASSERT_TRUE(device->FindFile(static_cast<int32_t>(handle), file));

    ASSERT_EQ(device->PTPRemoveFile(static_cast<int32_t>(handle)), ORQ_OK);
    EXPECT_FALSE(camera->FileBytes(handle));
    EXPECT_TRUE(device->FindFile(static_cast<int32_t>(handle), file));
    ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
    EXPECT_FALSE(device->FindFile(static_cast<int32_t>(handle), file));

    EXPECT_EQ(device->PTPRemoveFile(static_cast<int32_t>(handle)), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_OC_DeleteObject failed"), 1);
}

// --- Video -------------------------------------------------------------------------------------

using VideoTest = CaptureTest;

ProcOutcome ShootOn(CaptureDevice& device) {
    return RunProc(device.Shoot([&device](OrqFileInfo file) { device.OnShootCompleted(file); }));
}

TEST_F(VideoTest, StopReportsTheNewMovieAndShotsAreRefusedMeanwhile) {
    // A movie already on the card is not the new one.
    camera->AddFile(u"MVI_0001.MOV", Pattern(500));
    ASSERT_EQ(device->PTPStartVideo(), ORQ_OK);
    EXPECT_TRUE(device->IsVideoRecording());
    EXPECT_TRUE(camera->Recording());

    EXPECT_EQ(ShootOn(*device).result, ORQ_ERROR);
    device->SetDirectTransfer(0);
    EXPECT_EQ(ShootOn(*device).result, ORQ_ERROR);
    device->SetDirectTransfer(1);
    EXPECT_EQ(Count(Log(), "Shooting not supported: video recording started"), 2);
    EXPECT_EQ(Ops(orq::ORQM_Shoot) + Ops(orq::ORQM_RemoteCaptureStart), 0u);

    std::this_thread::sleep_for(30ms);
    OrqFileInfo movie{};
    ASSERT_EQ(device->PTPStopVideo(&movie), ORQ_OK);
    EXPECT_FALSE(device->IsVideoRecording());
    const auto files = camera->Files();
    EXPECT_EQ(movie.id, static_cast<int32_t>(files.back().handle));
    std::string name = Narrow(movie.name);
    EXPECT_EQ(name.substr(name.size() - 4), ".MOV");
    EXPECT_NE(name, "MVI_0001.MOV");
    EXPECT_EQ(movie.size, files.back().bytes->size());

    EXPECT_EQ(ShootOn(*device).result, ORQ_OK);
}

TEST_F(VideoTest, RefusedStartLetsShotsThrough) {
    camera->InjectFault(
        Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, orq::ORQM_StartVideo, 0x2019));
    EXPECT_EQ(device->PTPStartVideo(), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_ORQM_StartVideo failed"), 1);
    EXPECT_FALSE(device->IsVideoRecording());
    // The camera acted on the command before refusing it; a reset puts it back to rest.
    ASSERT_EQ(device->PTPReset(), ORQ_OK);
    EXPECT_EQ(ShootOn(*device).result, ORQ_OK);
}

TEST_F(VideoTest, RefusedStopKeepsTheCameraTakenAsRecording) {
    ASSERT_EQ(device->PTPStartVideo(), ORQ_OK);
    camera->InjectFault(
        Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor, orq::ORQM_StopVideo, 0x2019));
    OrqFileInfo untouched{};
    untouched.id = 77;
    EXPECT_EQ(device->PTPStopVideo(&untouched), ORQ_ERROR);
    EXPECT_EQ(untouched.id, 77);
    EXPECT_TRUE(device->IsVideoRecording());
    EXPECT_EQ(ShootOn(*device).result, ORQ_ERROR);
}

// --- Memory statistics ---------------------------------------------------------------------------

std::vector<uint32_t> GetMemoryAddresses(const orqsim::VirtualCamera& camera) {
    std::vector<uint32_t> addresses;
    for (const auto& op : camera.Operations()) {
        if (op.SubCommand() == orq::CHDK_GetMemory && op.params.size() > 2) {
            EXPECT_EQ(op.params[2], 36u);
            addresses.push_back(op.params[1]);
        }
    }
    return addresses;
}

TEST_F(FilesTest, SnapshotsFollowTheFlowWhenAskedFor) {
    device->memLogging = true;
    camera->SetShotFileDelay(1);
    ASSERT_EQ(ShootOn(*device).result, ORQ_OK);
    int32_t id = device->Shots().at(0).id;
    ASSERT_EQ(device->PTPDownloadFile(id, Target("shot.jpg")), ORQ_OK);
    ASSERT_EQ(device->PTPRemoveFile(id), ORQ_OK);

    EXPECT_TRUE(InOrder(
        Log(),
        {"0x10300 memory: SHOOT_FINISHED event", "0x10300 memory: after PTPUpdateObjectsInfo",
         "0x10300 memory: after PTPUpdateObjectsInfo", "0x10300 memory: after PTP_OC_GetObject",
         "0x10300 memory: after PTP_OC_DeleteObject"}));
    EXPECT_EQ(GetMemoryAddresses(*camera), std::vector<uint32_t>(5, 0x10300));
    // Nine words, each as eight hex digits and a blank.
    const std::string raw = RawLog();
    size_t hex = raw.find("    hex: ");
    ASSERT_NE(hex, std::string::npos);
    std::string words = raw.substr(hex + 9, 81);
    EXPECT_EQ(words.find_first_not_of("0123456789abcdef "), std::string::npos) << words;
    EXPECT_EQ(words[80], ' ');

    camera->ClearOperations();
    device->SetDirectTransfer(0);
    ASSERT_EQ(ShootOn(*device).result, ORQ_OK);
    EXPECT_TRUE(InOrder(
        Log(), {"0x10300 memory: pre shoot transaction", "0x10300 memory: after shoot transaction",
                "0x10300 memory: after PTP_ORQM_RemoteCaptureIsReady",
                "0x10300 memory: after PTP_ORQM_RemoteCaptureGetData"}));
}

TEST_F(FilesTest, ShortOrFailedSnapshotCostsOnlyALine) {
    device->memLogging = true;
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
    ASSERT_EQ(ShootOn(*device).result, ORQ_OK);
    EXPECT_EQ(Count(Log(), "PTP_CHDK_GetMemory failed"), 2);
}

TEST(MemoryStatisticsAddress, ComparesTheWholeModelCode) {
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"SX160"), 0x10300u);
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"A1400"), 0xEF34u);
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"A810"), 0xD974u);
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"G15"), 0x10364u);
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"SX1600"), 0x10364u);
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"sx160"), 0x10364u);
    EXPECT_EQ(orq::DeviceLL::MemoryStatisticsAddress(u"A81"), 0x10364u);
}

}  // namespace
}  // namespace capturetest
