// One DeviceLL on a virtual camera: the normal shot found by comparing listings, the remote shot
// buffered in host memory under negative ids, downloads, removals, video and memory statistics.
#include <cstdio>
#include <filesystem>
#include <iterator>

#include "tests/support/support.h"

namespace capturetest {
namespace {

using namespace orqtest;
using namespace std::string_literals;

// Records the shots and downloads it reports.
class CaptureDevice : public orq::DeviceLL {
public:
    using DeviceLL::DeviceLL;

    void OnShootCompleted(OrqFileInfo file) override { shots.push_back(file); }
    void OnDownloadCompleted(int fileId, std::u16string path) override {
        downloads.emplace_back(fileId, std::move(path));
    }
    void SetPreviewSuspended(bool suspended) override { previewSuspended = suspended; }
    bool IsMemLogging() override { return memLogging; }

    void SetDirectTransfer(int32_t value) { propertyValues[ORQ_PROP_DIRECT_TRANSFER] = value; }
    size_t BufferedFiles() const { return DirectTransferFiles.size(); }
    void SetOperationLimit(std::chrono::milliseconds limit) { operationLimit = limit; }

    std::vector<OrqFileInfo> shots;
    std::vector<std::pair<int, std::u16string>> downloads;
    bool previewSuspended = false;
    bool memLogging = false;
};

// The camera takes its time over a shot, as a real one does; its card is listed.
class CaptureTest : public DeviceTest<CaptureDevice> {
protected:
    CaptureTest() {
        options.remoteChunkSize = 4000;
        options.shootMs = 300;
    }
    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_EQ(device->PTPUpdateObjectsInfo(), ORQ_OK);
        Mark();
    }

    // Runs a shoot chain's steps as the main loop would, honouring their delays. A chain that
    // never ends answers ORQ_SECOND_PROCESS, which no chain gives.
    // 'between' runs once, after the first step.
    OrqResult Shoot(const std::function<void()>& between = nullptr) {
        auto proc = device->Shoot([this](OrqFileInfo file) { device->OnShootCompleted(file); });
        OrqResult result = ORQ_SECOND_PROCESS;
        const auto end = std::chrono::steady_clock::now() + 10s;
        for (bool again = true, first = true; again && std::chrono::steady_clock::now() < end;) {
            std::chrono::milliseconds delay(0);
            again = false;
            proc->step(proc.get(), &delay, &result, &again);
            if (first && between) between();
            first = false;
            std::this_thread::sleep_for(delay);
        }
        return result;
    }
};

TEST_F(CaptureTest, CardIsListedUntilTheNewFileAppearsAtMostFiveTimes) {
    camera->SetShotFileDelay(2);
    ASSERT_EQ(Shoot(), ORQ_OK);
    ASSERT_EQ(device->shots.size(), 1u);
    const OrqFileInfo shot = device->shots[0];
    EXPECT_EQ(shot.id, static_cast<int32_t>(camera->Files().back().handle));
    auto log = Log();
    EXPECT_TRUE(InOrder(
        log, {"Shoot started on camera", "Shoot transaction", "Shoot: new file not found. Retry: 1",
              "Shoot: new file not found. Retry: 2", "Shoot Completed:"}));
    EXPECT_NE(RawLog().find("    name: " + Narrow(shot.name)), std::string::npos);
    EXPECT_EQ(Ops(orq::ORQM_Shoot), 1u);
    EXPECT_FALSE(device->previewSuspended);

    camera->SetShotProducesFile(false);
    logStart = LogSize();
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    EXPECT_EQ(device->shots.size(), 1u);
    log = Log();
    EXPECT_TRUE(InOrder(log, {"Shoot: new file not found. Retry: 4", "Shoot: new file not found"}));
    EXPECT_EQ(Count(log, "PTPUpdateObjectsInfo"), 1 + 5);
    // A failed shot leaves the preview suspended: the session ends anyway.
    EXPECT_TRUE(device->previewSuspended);
}

TEST_F(CaptureTest, StaleShootFinishedDoesNotEndTheWait) {
    // Left over from before and seen by some other wait; taken for the end of this shot, it
    // would have the card listed before the camera wrote the file.
    camera->RaiseEvents(orq::SHOOT_FINISHED);
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    ASSERT_TRUE(device->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));
    ASSERT_EQ(Shoot(), ORQ_OK);
    EXPECT_EQ(Count(Log(), "Shoot: new file not found. Retry: 1"), 0);
}

TEST_F(CaptureTest, RemotePicturesAreBufferedUnderFallingIdsUntilRemoved) {
    device->SetDirectTransfer(0);
    const auto picture = Pattern(10000, 3);
    camera->SetRemotePicture(picture);
    // A failed transfer drops what came and uses no id.
    Fault fault = Fault::Operation(Fault::ResponseCode, orq::PTP_OC_Vendor,
                                   orq::ORQM_RemoteCaptureGetData, 0x2019);
    fault.skip = 1;
    camera->InjectFault(fault);
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_ORQM_RemoteCaptureGetData failed"), 1);
    ASSERT_EQ(device->PTPReset(), ORQ_OK);

    // The first chunk arrives empty with "more" set; the camera's next chunks follow.
    camera->InjectFault(Raw(orq::PTP_OC_Vendor, orq::ORQM_RemoteCaptureGetData,
                            DataThen({}, orq::PTP_OC_Vendor, {0, 1, 0})));
    logStart = LogSize();
    ASSERT_EQ(Shoot(), ORQ_OK);
    ASSERT_EQ(device->shots.size(), 1u);
    EXPECT_EQ(device->shots[0].id, -100);
    EXPECT_EQ(Narrow(device->shots[0].name), "direct_100.jpg");
    EXPECT_EQ(device->shots[0].size, 6000u);
    EXPECT_TRUE(InOrder(
        Log(), {"Shoot started on camera (remote version)", "Shoot transaction (remote version)",
                "Remote capture ready", "RemoteCaptureGetData: 0 1 0", "total chunks: 1",
                "RemoteCaptureGetData: 4000 1 10000", "total chunks: 2",
                "RemoteCaptureGetData: 8000 0 10000", "total chunks: 3",
                "Total DirectTransfer buffered files: 1", "Direct Shoot Completed:"}));

    // A buffered file downloads as often as asked, its chunks in arrival order.
    const auto target = TempPath("capture_direct.jpg");
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(device->PTPDownloadFile(-100, target), ORQ_OK);
        EXPECT_EQ(ReadAll(target), std::string(picture.begin() + 4000, picture.end()));
    }
    EXPECT_EQ(Count(Log(), "DirectTransfer download file completed:"), 2);

    ASSERT_EQ(device->PTPRemoveFile(-100), ORQ_OK);
    EXPECT_EQ(device->BufferedFiles(), 0u);
    EXPECT_EQ(device->PTPRemoveFile(-100), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTPRemoveFile: DirectTransfer FileId not found!"), 1);
    EXPECT_EQ(device->PTPDownloadFile(-100, target), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTPDownloadFile: DirectTransfer FileId not found!"), 1);
    EXPECT_EQ(device->downloads.size(), 2u);
    // Ids are never reused.
    ASSERT_EQ(Shoot(), ORQ_OK);
    EXPECT_EQ(device->shots.back().id, -101);
}

// A card file is written byte for byte and reported. A disk that refuses in each of its ways
// gets no report, and no file, whole or partial, is left.
TEST_F(CaptureTest, DownloadWritesTheWholeFileOrNothing) {
    namespace fs = std::filesystem;
    const fs::path root = orq::platform::ToUtf8(TempPath("capture_hostile"));
    fs::remove_all(root);
    fs::create_directories(root / "readonly");
    fs::create_directories(root / "full");
    // Above what the log will reach meanwhile, below the file.
    const size_t limit = LogSize() + (1 << 20);
    const auto bytes = Pattern(limit * 2 + 17);
    const auto handle = static_cast<int32_t>(camera->AddFile(u"IMG_0006.JPG", bytes));
    const auto target = TempPath("capture_card.jpg");
    ASSERT_EQ(device->PTPDownloadFile(handle, target), ORQ_OK);
    EXPECT_EQ(ReadAll(target), std::string(bytes.begin(), bytes.end()));
    EXPECT_NE(RawLog().find("    path: " + orq::platform::ToUtf8(target)), std::string::npos);
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 0u);  // no snapshot was asked for
    std::remove(orq::platform::ToUtf8(target).c_str());
    EXPECT_EQ(device->PTPDownloadFile(9999, TempPath("capture_missing.jpg")), ORQ_ERROR);
#ifdef _WIN32
    const char* disks[] = {"missing"};
#else
    const char* disks[] = {"missing", "readonly", "full"};
#endif
    for (const std::string disk : disks) {
        SCOPED_TRACE(disk);
        HostileDisk spoiled(root / disk, disk == "readonly", disk == "full" ? limit : 0);
        EXPECT_EQ(device->PTPDownloadFile(
                      handle, orq::platform::FromUtf8((root / disk / "x.jpg").string())),
                  ORQ_ERROR);
    }
    EXPECT_EQ(Count(Log(), "PTPDownloadFile: write file failed"),
              static_cast<int>(std::size(disks)));
    // Only the good download is reported; the unknown file is not.
    EXPECT_EQ(device->downloads, (std::vector<std::pair<int, std::u16string>>{{handle, target}}));
    for (const auto& entry : fs::recursive_directory_iterator(root))
        EXPECT_TRUE(entry.is_directory()) << entry.path();
}

// Only a plain name under a known folder; which names are reserved is the system's affair.
TEST(DownloadTarget, IsAPlainNameUnderAKnownFolder) {
    const std::u16string folder = u"/tmp";
    const bool windows = orq::platform::PathSeparator() == u'\\';
    std::u16string path;
    EXPECT_FALSE(orq::DeviceLL::DownloadTarget(u"", u"IMG_0001.JPG", path));
    const std::u16string longest(84, u'\u4e2d');  // 3 bytes each in UTF-8: 256 with ".jpg"
    const std::u16string refused[] = {
        u"",        u".",         u"..",       u"../a.jpg",  u"a/b.jpg",       u"a\\b.jpg",
        u"c:a.jpg", u"a\0b.jpg"s, u"a\nb.jpg", u"a\x7F.jpg", longest + u".jpg"};
    for (const auto& name : refused)
        EXPECT_FALSE(orq::DeviceLL::DownloadTarget(folder, name, path))
            << orq::platform::ToUtf8(name);
    for (const char16_t* name : {u"CON.jpg", u"com1", u"a.jpg.", u"a.jpg "})
        EXPECT_EQ(orq::DeviceLL::DownloadTarget(folder, name, path), !windows);
    ASSERT_TRUE(orq::DeviceLL::DownloadTarget(folder, longest.substr(1) + u".jpg", path));
    ASSERT_TRUE(
        orq::DeviceLL::DownloadTarget(folder + orq::platform::PathSeparator(), u"a b.jpg", path));
    EXPECT_EQ(path, folder + orq::platform::PathSeparator() + u"a b.jpg");
}

// What the camera says of its own data is bounded before it costs memory.
TEST_F(CaptureTest, PicturesThatNeverEndAreBounded) {
    // A chunk stream that never ends: of empty chunks, then of full ones.
    device->SetDirectTransfer(0);
    for (size_t chunk : {size_t(0), size_t(64 * 1024)}) {
        Fault endless = Raw(orq::PTP_OC_Vendor, orq::ORQM_RemoteCaptureGetData,
                            DataThen(Bytes(chunk), orq::PTP_OC_Vendor, {0, 1, 0}));
        endless.times = -1;
        camera->ClearFaults();
        camera->InjectFault(endless);
        ASSERT_EQ(device->PTPReset(), ORQ_OK);
        camera->ClearOperations();
        EXPECT_EQ(Shoot(), ORQ_ERROR) << chunk;
        EXPECT_LE(Ops(orq::ORQM_RemoteCaptureGetData), chunk ? 1025u : 4096u);
    }
    EXPECT_TRUE(InOrder(Log(), {"RemoteCaptureGetData: more than 4096 chunks",
                                "GETDATA failed: container length 65548 above limit 0"}));
    EXPECT_EQ(device->BufferedFiles(), 0u);
    EXPECT_TRUE(device->shots.empty());
}

// A picture that never becomes ready fails within the bound, asked at a pace; a shot whose end
// went with a lost event read is found on the card all the same.
TEST_F(CaptureTest, ShotsEndWithinTheirBound) {
    device->SetOperationLimit(500ms);
    device->SetDirectTransfer(0);
    Fault never =
        Raw(orq::PTP_OC_Vendor, orq::ORQM_RemoteCaptureIsReady, Container(3, 0x2001, Words({0})));
    never.times = -1;
    camera->InjectFault(never);
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    EXPECT_LT(Ops(orq::ORQM_RemoteCaptureIsReady), 100u);
    EXPECT_EQ(Count(Log(), "Remote capture: picture not ready after 500 ms"), 1);
    camera->ClearFaults();
    ASSERT_EQ(device->PTPReset(), ORQ_OK);

    device->SetDirectTransfer(1);
    device->SetOperationLimit(5000ms);
    EXPECT_EQ(Shoot([&] {
                  std::this_thread::sleep_for(500ms);  // the camera has finished meanwhile
                  camera->InjectFault(Fault::Operation(Fault::GeneralError, orq::PTP_OC_Vendor,
                                                       orq::ORQM_GetEvents));
              }),
              ORQ_OK);
    ASSERT_EQ(device->shots.size(), 1u);
    EXPECT_EQ(device->shots[0].id, static_cast<int32_t>(camera->Files().back().handle));

    // Every event read answered garbled, each taking the bits with it: the card tells.
    const Bytes garbled[] = {DataThen(Words({0x10, 0x9999, 7, 0})),  // 40 bytes, as real ones
                             DataThen({})};
    for (const Bytes& reply : garbled) {
        camera->ClearFaults();
        Fault fault = Raw(orq::PTP_OC_Vendor, orq::ORQM_GetEvents, reply);
        fault.times = -1;
        camera->InjectFault(fault);
        const size_t before = device->shots.size();
        EXPECT_EQ(Shoot(), ORQ_OK) << reply.size();
        ASSERT_EQ(device->shots.size(), before + 1);
        EXPECT_EQ(device->shots.back().id, static_cast<int32_t>(camera->Files().back().handle));
    }
}

// Each new file belongs to the operation that made it: video waits its turn behind a shot, shots
// are refused while video records.
TEST_F(CaptureTest, VideoAndShotsExcludeEachOtherAndStopReportsTheNewMovie) {
    OrqResult start = ORQ_OK, stop = ORQ_OK;
    OrqFileInfo movie{};
    EXPECT_EQ(Shoot([&] {
                  start = device->PTPStartVideo();
                  stop = device->PTPStopVideo(&movie);
              }),
              ORQ_OK);
    EXPECT_EQ(start, ORQ_SESSION_BUSY);
    EXPECT_EQ(stop, ORQ_SESSION_BUSY);
    ASSERT_EQ(device->shots.size(), 1u);
    EXPECT_EQ(device->shots[0].id, static_cast<int32_t>(camera->Files().back().handle));
    EXPECT_EQ(Ops(orq::ORQM_StartVideo) + Ops(orq::ORQM_StopVideo), 0u);
    EXPECT_FALSE(device->IsVideoRecording());
    Mark();

    InjectFailure(orq::ORQM_StartVideo);
    EXPECT_EQ(device->PTPStartVideo(), ORQ_ERROR);
    EXPECT_EQ(Count(Log(), "PTP_ORQM_StartVideo failed"), 1);
    EXPECT_FALSE(device->IsVideoRecording());
    // The camera acted on the command before refusing it; a reset puts it back to rest.
    ASSERT_EQ(device->PTPReset(), ORQ_OK);

    camera->AddFile(u"MVI_0001.MOV", Pattern(500));  // not the new movie
    ASSERT_EQ(device->PTPStartVideo(), ORQ_OK);
    // Shots queued before the recording began meet it in either chain.
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    device->SetDirectTransfer(0);
    EXPECT_EQ(Shoot(), ORQ_ERROR);
    device->SetDirectTransfer(1);
    EXPECT_EQ(Count(Log(), "Shooting not supported: video recording started"), 2);
    EXPECT_EQ(Ops(orq::ORQM_Shoot) + Ops(orq::ORQM_RemoteCaptureStart), 0u);

    ASSERT_EQ(device->PTPStopVideo(&movie), ORQ_OK);
    EXPECT_FALSE(device->IsVideoRecording());
    const auto newest = camera->Files().back();
    EXPECT_EQ(movie.id, static_cast<int32_t>(newest.handle));
    EXPECT_EQ(movie.size, newest.bytes->size());
    EXPECT_EQ(Shoot(), ORQ_OK);

    // A refused stop leaves the recording on and the movie untouched.
    ASSERT_EQ(device->PTPStartVideo(), ORQ_OK);
    InjectFailure(orq::ORQM_StopVideo);
    movie.id = 77;
    EXPECT_EQ(device->PTPStopVideo(&movie), ORQ_ERROR);
    EXPECT_EQ(movie.id, 77);
    EXPECT_TRUE(device->IsVideoRecording());
}

TEST_F(CaptureTest, SnapshotsFollowTheFlowWhenAskedForAndNeverFailIt) {
    device->memLogging = true;
    camera->SetShotFileDelay(1);
    ASSERT_EQ(Shoot(), ORQ_OK);
    const int32_t id = device->shots.at(0).id;
    ASSERT_EQ(device->PTPDownloadFile(id, TempPath("capture_shot.jpg")), ORQ_OK);
    ASSERT_EQ(device->PTPRemoveFile(id), ORQ_OK);
    // Finished, two listings, the download, the removal; the last is the model's record address
    // and the record's size.
    EXPECT_EQ(Ops(orq::CHDK_GetMemory), 5u);
    EXPECT_EQ(Count(Log(), "0x10300 memory: after PTP_OC_DeleteObject"), 1);
    EXPECT_EQ(camera->Operations().back().params,
              (std::vector<uint32_t>{orq::CHDK_GetMemory, 0x10300, 36}));
    // A removed file stays listed until the next listing; removed again, the camera refuses.
    OrqFileInfo file{};
    EXPECT_TRUE(device->FindFile(id, file));
    EXPECT_EQ(device->PTPRemoveFile(id), ORQ_ERROR);

    // A short answer costs nothing but zeros, a refused one only its line.
    logStart = LogSize();
    camera->InjectFault(Raw(orq::PTP_OC_Vendor, orq::CHDK_GetMemory, DataThen(Words({1, 2}))));
    device->PTPMemoryStatistics("short");
    EXPECT_NE(RawLog().find("    start address:   2\n"), std::string::npos);
    EXPECT_NE(RawLog().find("    total size:      0\n"), std::string::npos);
    InjectFailure(orq::CHDK_GetMemory, 2);
    ASSERT_EQ(Shoot(), ORQ_OK);
    EXPECT_EQ(Count(Log(), "PTP_CHDK_GetMemory failed"), 2);
}

}  // namespace
}  // namespace capturetest
