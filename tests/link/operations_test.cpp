// The standard and vendor wrappers against the virtual camera: what goes on the wire, what comes
// back, and what each logs when the camera refuses.
#include <chrono>
#include <functional>
#include <thread>

#include "link_support.h"

namespace linktest {
namespace {

using namespace std::chrono_literals;
using orq::DeviceLL;
using orq::PTP_OC_Vendor;

class OperationsTest : public LinkTest {};

struct Row {
    const char* name;
    std::vector<uint32_t> params;  // as sent, sub-command first
    const char* failure;           // the wrapper's own line
    std::function<OrqResult(DeviceLL&)> call;
};

// Somewhere for a wrapper to put what the test does not look at.
template <class T>
T& Out() {
    static T value;
    return value;
}

std::vector<Row> VendorRows() {
    using Block = orq::PtpDataBlock;
    using Words = std::vector<uint32_t>;
    return {
        {"GetMemory",
         {1, 0x10364, 36},
         "PTP_CHDK_GetMemory failed",
         [](DeviceLL& d) { return d.PTPGetMemory(0x10364, 36, Out<Block>()); }},
        {"GetVideoSettings",
         {11},
         "PTP_CHDK_GetVideoSettings failed",
         [](DeviceLL& d) { return d.PTPGetVideoSettings(Out<Block>()); }},
        {"GetPropCase",
         {129, 57, 1},
         "PTP_ORQM_GetPropCase failed",
         [](DeviceLL& d) { return d.PTPGetPropCase(57, Out<int32_t>()); }},
        {"GetZoom",
         {131},
         "PTP_ORQM_GetZoom failed",
         [](DeviceLL& d) { return d.PTPGetZoom(Out<int32_t>()); }},
        {"SetZoom",
         {132, 4},
         "PTP_ORQM_SetZoom failed",
         [](DeviceLL& d) { return d.PTPSetZoom(4); }},
        {"Set_Play_Mode",
         {140},
         "PTP_ORQM_Set_Play_Mode failed",
         [](DeviceLL& d) { return d.PTPSetPlayMode(); }},
        {"GetOrqmVersion",
         {145},
         "PTP_ORQM_GetOrqmVersion failed",
         [](DeviceLL& d) { return d.PTPGetOrqmVersion(Out<std::string>()); }},
        {"Shoot", {147}, "PTP_ORQM_Shoot failed", [](DeviceLL& d) { return d.PTPShoot(); }},
        {"UpdateAEAF",
         {148},
         "PTP_ORQM_UpdateAEAF failed",
         [](DeviceLL& d) { return d.PTPUpdateAEAF(); }},
        {"GetEvents",
         {149},
         "PTP_ORQM_GetEvents failed",
         [](DeviceLL& d) { return d.PTPLoadEvents(); }},
        {"GetMode",
         {150},
         "PTP_ORQM_GetMode failed",
         [](DeviceLL& d) { return d.PTPGetMode(Out<uint32_t>()); }},
        {"GetCamLog",
         {153},
         "PTP_ORQM_GetCamLog failed",
         [](DeviceLL& d) { return d.PTPGetCamLogRequest(); }},
        {"MfOn", {154}, "PTP_ORQM_MfOn failed", [](DeviceLL& d) { return d.PTPMfOn(); }},
        // The camera module names both switches alike.
        {"MfOff", {155}, "PTP_ORQM_MfOn failed", [](DeviceLL& d) { return d.PTPMfOff(); }},
        {"MoveFocusTo",
         {156, 300},
         "PTP_ORQM_MoveFocusTo failed",
         [](DeviceLL& d) { return d.PTPMoveFocusTo(300, Out<int32_t>()); }},
        {"GetFocusParams",
         {157},
         "PTP_ORQM_GetFocusParams failed",
         [](DeviceLL& d) { return d.PTPGetFocusParams(Out<int32_t>()); }},
        {"GetVBat",
         {158},
         "PTP_ORQM_GetVBat failed",
         [](DeviceLL& d) {
             return d.PTPGetVBat(Out<uint32_t>(), Out<uint32_t>(), Out<uint32_t>());
         }},
        {"SetCaptureMode",
         {160, 32772},
         "PTP_ORQM_SetCaptureMode failed",
         [](DeviceLL& d) { return d.PTPSetCaptureMode(32772); }},
        {"GetSerialNumber",
         {161},
         "PTP_ORQM_GetSerialNumber failed",
         [](DeviceLL& d) { return d.PTPGetSerialNumber(Out<std::u16string>()); }},
        {"Reset", {162}, "PTP_ORQM_Reset failed", [](DeviceLL& d) { return d.PTPReset(); }},
        {"RemoteCaptureStart",
         {163},
         "PTP_ORQM_RemoteCaptureStart failed",
         [](DeviceLL& d) { return d.PTPRemoteCaptureStart(); }},
        {"RemoteCaptureIsReady",
         {164},
         "PTP_ORQM_RemoteCaptureIsReady failed",
         [](DeviceLL& d) { return d.PTPRemoteCaptureIsReady(Out<bool>()); }},
        {"RemoteCaptureGetData",
         {165, 1},
         "PTP_ORQM_RemoteCaptureGetData failed",
         [](DeviceLL& d) { return d.PTPRemoteCaptureGetData(Out<Block>(), Out<Words>()); }},
        {"StartVideo",
         {166},
         "PTP_ORQM_StartVideo failed",
         [](DeviceLL& d) { return d.PTPStartVideoRequest(); }},
        {"StopVideo",
         {167},
         "PTP_ORQM_StopVideo failed",
         [](DeviceLL& d) { return d.PTPStopVideoRequest(); }},
    };
}

TEST_F(OperationsTest, EveryVendorRowSendsItsParametersAndLogsItsLine) {
    for (const Row& row : VendorRows()) {
        SCOPED_TRACE(row.name);
        camera->ClearOperations();
        camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, row.params[0],
                                             orqsim::RC_AccessDenied));
        logStart = LogSize();
        EXPECT_EQ(row.call(*link), ORQ_ERROR);
        auto ops = camera->Operations();
        ASSERT_EQ(ops.size(), 1u);
        EXPECT_EQ(ops[0].code, PTP_OC_Vendor);
        EXPECT_EQ(ops[0].params, row.params);
        auto log = Log();
        EXPECT_EQ(Count(log, row.failure), 1);
        EXPECT_EQ(Count(log, "PtpTransaction failed"), 1);
    }
}

TEST_F(OperationsTest, StandardOperationsOnTheCard) {
    uint32_t storage = 0;
    ASSERT_EQ(link->PTPGetStorageIDs(storage), ORQ_OK);
    EXPECT_EQ(storage, 0x00010001u);

    uint32_t first = camera->AddFileOfSize(u"IMG_0001.JPG", 1000);
    uint32_t second = camera->AddFile(u"MVI_0002.MOV", Bytes{1, 2, 3});
    std::vector<uint32_t> handles;
    ASSERT_EQ(link->PTPGetObjectHandles(handles), ORQ_OK);
    // The two folders of the card come first.
    ASSERT_EQ(handles.size(), 4u);
    EXPECT_EQ(handles[2], first);
    EXPECT_EQ(handles[3], second);
    auto ops = camera->Operations();
    EXPECT_EQ(ops.back().code, orq::PTP_OC_GetObjectHandles);
    EXPECT_EQ(ops.back().params, (std::vector<uint32_t>{storage, 0, 0}));

    orq::PtpDataBlock block;
    ASSERT_EQ(link->PTPGetObject(second, block), ORQ_OK);
    EXPECT_EQ(Bytes(block.data.get(), block.data.get() + block.size), (Bytes{1, 2, 3}));

    ASSERT_EQ(link->PTPDeleteObject(first), ORQ_OK);
    EXPECT_EQ(camera->Operations().back().params, (std::vector<uint32_t>{first, 0}));
    EXPECT_EQ(camera->Files().size(), 1u);

    EXPECT_EQ(link->PTPDeleteObject(first), ORQ_ERROR);
    EXPECT_EQ(link->PTPGetObject(first, block), ORQ_ERROR);
    auto log = Log();
    EXPECT_EQ(Count(log, "PTP_OC_DeleteObject failed"), 1);
    EXPECT_EQ(Count(log, "PTP_OC_GetObject failed"), 1);
}

TEST_F(OperationsTest, StorageFailureEndsTheHandleListingWithItsOwnLine) {
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, orq::PTP_OC_GetStorageIDs, -1,
                                         orqsim::RC_AccessDenied));
    std::vector<uint32_t> handles;
    EXPECT_EQ(link->PTPGetObjectHandles(handles), ORQ_ERROR);
    auto log = Log();
    EXPECT_EQ(Count(log, "PTP_OC_GetStorageIDs failed"), 1);
    EXPECT_EQ(Count(log, "PTP_OC_GetObjectHandles failed"), 0);
    EXPECT_EQ(camera->CountOperations(orq::PTP_OC_GetObjectHandles), 0u);
}

TEST_F(OperationsTest, FixedSizeGettersCopyTheAskedWordsWhateverTheBlock) {
    camera->SetBattery(3900, 4150, 3200);
    uint32_t current = 0, maximum = 0, minimum = 0;
    ASSERT_EQ(link->PTPGetVBat(current, maximum, minimum), ORQ_OK);
    EXPECT_EQ(current, 3900u);
    EXPECT_EQ(maximum, 4150u);
    EXPECT_EQ(minimum, 3200u);

    camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetVBat, DataThenOk(Words({3700}))));
    ASSERT_EQ(link->PTPGetVBat(current, maximum, minimum), ORQ_OK);
    EXPECT_EQ(current, 3700u);
    EXPECT_EQ(maximum, 0u);
    EXPECT_EQ(minimum, 0u);

    std::vector<uint32_t> words{42};
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, -1, 0x2005));
    EXPECT_EQ(link->PTPORQMGet(orq::ORQM_GetFocusParams, 2, words), ORQ_ERROR);
    EXPECT_EQ(words, (std::vector<uint32_t>{42}));
    EXPECT_EQ(Count(Log(), "PTPORQMGet failed: 157"), 1);
}

TEST_F(OperationsTest, TextAnswers) {
    std::string version;
    ASSERT_EQ(link->PTPGetOrqmVersion(version), ORQ_OK);
    EXPECT_EQ(version, "3.1.3.0");
    // Text after the first zero byte is not part of it; a text without one ends with the block.
    camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetOrqmVersion,
                            DataThenOk(Bytes{'3', '.', '2', 0, '9', '9'})));
    ASSERT_EQ(link->PTPGetOrqmVersion(version), ORQ_OK);
    EXPECT_EQ(version, "3.2");
    camera->InjectFault(
        Raw(PTP_OC_Vendor, orq::ORQM_GetOrqmVersion, DataThenOk(Bytes{'4', '.', '0'})));
    ASSERT_EQ(link->PTPGetOrqmVersion(version), ORQ_OK);
    EXPECT_EQ(version, "4.0");

    std::u16string serial;
    ASSERT_EQ(link->PTPGetSerialNumber(serial), ORQ_OK);
    EXPECT_EQ(serial, camera->Options().serialNumber);
    // One character from every second byte: the high halves are dropped.
    camera->InjectFault(
        Raw(PTP_OC_Vendor, orq::ORQM_GetSerialNumber, DataThenOk(Bytes{'A', 0x01, 'B', 0, 'C'})));
    ASSERT_EQ(link->PTPGetSerialNumber(serial), ORQ_OK);
    EXPECT_EQ(serial, u"ABC");
    camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetSerialNumber, DataThenOk({})));
    ASSERT_EQ(link->PTPGetSerialNumber(serial), ORQ_OK);
    EXPECT_EQ(serial, u"");
}

TEST_F(OperationsTest, ModeWaitEndsInRecordMode) {
    camera->SetCameraMode(0);
    std::thread wheel([&] {
        std::this_thread::sleep_for(250ms);
        camera->SetCameraMode(1);
    });
    EXPECT_EQ(link->PTPWaitRecMode(), ORQ_OK);
    wheel.join();
    EXPECT_GE(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_GetMode), 3u);

    camera->SetCameraMode(0);
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, orq::ORQM_GetMode,
                                         orqsim::RC_AccessDenied));
    EXPECT_EQ(link->PTPWaitRecMode(), ORQ_ERROR);
}

TEST_F(OperationsTest, PropertyCasesHoldRawValues) {
    ASSERT_EQ(link->PTPSetPropCase(222, 65344), ORQ_OK);
    int32_t value = 0;
    ASSERT_EQ(link->PTPGetPropCase(222, value), ORQ_OK);
    EXPECT_EQ(value, 65344);
    ASSERT_EQ(link->PTPSetPropCase(223, -192), ORQ_OK);
    ASSERT_EQ(link->PTPGetPropCase(223, value), ORQ_OK);
    EXPECT_EQ(value, -192);

    // The capture mode is the shooting-mode case; the wheel sets it too.
    ASSERT_EQ(link->PTPSetCaptureMode(32770), ORQ_OK);
    EXPECT_EQ(camera->PropCase(camera->ShootingModeCase()), 32770);
    camera->SetModeWheel(32771);
    ASSERT_EQ(link->PTPGetPropCase(camera->ShootingModeCase(), value), ORQ_OK);
    EXPECT_EQ(value, 32771);
}

TEST_F(OperationsTest, ZoomTakesTimeAndRaisesItsEvent) {
    ASSERT_EQ(link->PTPSetZoom(8), ORQ_OK);
    int32_t position = -1;
    ASSERT_EQ(link->PTPGetZoom(position), ORQ_OK);
    EXPECT_LT(position, 8);
    ASSERT_EQ(link->PTPLoadEvents(), ORQ_OK);
    EXPECT_FALSE(link->CameraEvent(orq::CAMERA_EVENT_ZOOM_FINISHED));

    std::this_thread::sleep_for(120ms);
    ASSERT_EQ(link->PTPGetZoom(position), ORQ_OK);
    EXPECT_EQ(position, 8);
    ASSERT_EQ(link->PTPLoadEvents(), ORQ_OK);
    EXPECT_TRUE(link->CameraEvent(orq::CAMERA_EVENT_ZOOM_FINISHED));
    EXPECT_FALSE(link->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));
}

TEST_F(OperationsTest, EventBitsReachTheirReaderOnly) {
    camera->RaiseEvents(orq::SHOOT_FINISHED | orq::ZOOM_FINISHED | orq::EVENT_REMOTE_AVAILABLE);
    ASSERT_EQ(link->PTPLoadEvents(), ORQ_OK);
    EXPECT_TRUE(link->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));
    EXPECT_TRUE(link->CameraEvent(orq::CAMERA_EVENT_ZOOM_FINISHED));
    EXPECT_EQ(Count(Log(), "ShootDirectEvent: EVENT_REMOTE_AVAILABLE"), 0);

    // An empty mask clears nothing; only the waiting operation clears its flag.
    ASSERT_EQ(link->PTPLoadEvents(), ORQ_OK);
    EXPECT_TRUE(link->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));
    link->ClearCameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED);
    EXPECT_FALSE(link->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));

    camera->RaiseEvents(0xFFFF);
    logStart = LogSize();
    link->ShootDirectEvent();
    EXPECT_FALSE(link->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));
    auto log = Log();
    EXPECT_EQ(log, (std::vector<std::string>{"ShootDirectEvent: EVENT_RAW_AVAILABLE",
                                             "ShootDirectEvent: EVENT_REMOTE_AVAILABLE",
                                             "ShootDirectEvent: EVENT_REMOTE_TIMEOUT",
                                             "ShootDirectEvent: EVENT_GET_JPEG_CHUNK",
                                             "ShootDirectEvent: EVENT_GET_JPEG_TIMEOUT",
                                             "ShootDirectEvent: EVENT_LAST_JPEG_CHUNK"}));

    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, orq::ORQM_GetEvents,
                                         orqsim::RC_AccessDenied));
    logStart = LogSize();
    link->ShootDirectEvent();
    EXPECT_EQ(Count(Log(), "PTP_ORQM_GetEvents failed"), 1);
}

TEST_F(OperationsTest, ShotAddsAFileAndFinishes) {
    size_t before = camera->Files().size();
    ASSERT_EQ(link->PTPShoot(), ORQ_OK);
    ASSERT_EQ(link->PTPLoadEvents(), ORQ_OK);
    EXPECT_TRUE(link->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));
    auto files = camera->Files();
    ASSERT_EQ(files.size(), before + 1);
    EXPECT_EQ(files.back().name, u"IMG_0100.JPG");
}

TEST_F(OperationsTest, RemoteCaptureStreamsChunksWithResponseParameters) {
    Bytes picture(1300000);
    for (size_t i = 0; i < picture.size(); ++i) picture[i] = static_cast<uint8_t>(i * 7);
    camera->SetRemotePicture(picture);
    ASSERT_EQ(link->PTPRemoteCaptureStart(), ORQ_OK);
    bool ready = false;
    ASSERT_EQ(link->PTPRemoteCaptureIsReady(ready), ORQ_OK);
    EXPECT_TRUE(ready);

    Bytes received;
    std::vector<std::vector<uint32_t>> params;
    for (bool more = true; more;) {
        orq::PtpDataBlock chunk;
        std::vector<uint32_t> response;
        ASSERT_EQ(link->PTPRemoteCaptureGetData(chunk, response), ORQ_OK);
        ASSERT_EQ(response.size(), 5u);
        received.insert(received.end(), chunk.data.get(), chunk.data.get() + chunk.size);
        params.push_back(response);
        more = response[1] != 0;
    }
    EXPECT_EQ(received, picture);
    ASSERT_EQ(params.size(), 3u);
    EXPECT_EQ(params[0][1], 1u);
    EXPECT_EQ(params[2][1], 0u);
    EXPECT_EQ(params[2][2], picture.size());
}

TEST_F(OperationsTest, LiveViewAndVideoSettings) {
    std::array<uint32_t, 22> settings{};
    settings[1] = 320;
    settings[2] = 180;
    settings[5] = 240;
    camera->SetVideoSettings(settings);
    orq::PtpDataBlock block;
    ASSERT_EQ(link->PTPGetVideoSettings(block), ORQ_OK);
    ASSERT_EQ(block.size, 88u);
    EXPECT_EQ(block.Word(1), 320u);
    EXPECT_EQ(block.Word(5), 240u);

    const uint32_t size = 320 * 240 * 6 / 4;
    ASSERT_EQ(link->PTPGetMemory(0, size, block), ORQ_OK);
    EXPECT_EQ(block.size, size);

    Bytes frame(size, 0x5A);
    camera->SetLiveView(frame);
    ASSERT_EQ(link->PTPGetMemory(0, size, block), ORQ_OK);
    EXPECT_EQ(Bytes(block.data.get(), block.data.get() + block.size), frame);
}

TEST_F(OperationsTest, FocusMovesAndReportsTheReachedPosition) {
    ASSERT_EQ(link->PTPMfOn(), ORQ_OK);
    EXPECT_TRUE(camera->ManualFocus());
    int32_t reached = 0;
    ASSERT_EQ(link->PTPMoveFocusTo(-1, reached), ORQ_OK);
    EXPECT_EQ(reached, -1);
    EXPECT_EQ(Count(Log(), "PTP_ORQM_MoveFocusTo res: 0 -1"), 1);

    camera->SetFocusPosition(700);
    camera->SetFocusStuck(true);
    ASSERT_EQ(link->PTPMoveFocusTo(900, reached), ORQ_OK);
    EXPECT_EQ(reached, 700);
    int32_t position = 0;
    ASSERT_EQ(link->PTPGetFocusParams(position), ORQ_OK);
    EXPECT_EQ(position, 700);
    ASSERT_EQ(link->PTPMfOff(), ORQ_OK);
    EXPECT_FALSE(camera->ManualFocus());
}

TEST_F(OperationsTest, CameraLogAndMoviesLandOnTheCard) {
    ASSERT_EQ(link->PTPGetCamLogRequest(), ORQ_OK);
    auto files = camera->Files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].name, u"img_0002.jpg");
    EXPECT_EQ(files[0].bytes->back(), 0);

    ASSERT_EQ(link->PTPStartVideoRequest(), ORQ_OK);
    EXPECT_TRUE(camera->Recording());
    // A shot is refused while recording.
    EXPECT_EQ(link->PTPShoot(), ORQ_ERROR);
    ASSERT_EQ(link->PTPStopVideoRequest(), ORQ_OK);
    files = camera->Files();
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[1].name, u"MVI_0100.MOV");
    EXPECT_EQ(link->PTPStopVideoRequest(), ORQ_ERROR);
}

}  // namespace
}  // namespace linktest
