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

// Somewhere for a wrapper to put what the test does not look at.
template <class T>
T& Out() {
    static T value;
    return value;
}

TEST_F(OperationsTest, EveryWrapperSendsItsParametersAndLogsItsLine) {
    struct Row {
        uint16_t code;
        std::vector<uint32_t> params;  // as sent; a vendor operation's sub-command first
        const char* failure;           // the wrapper's own line
        std::function<OrqResult(DeviceLL&)> call;
    };
    using B = orq::PtpDataBlock;
    using D = DeviceLL;
    const uint16_t V = PTP_OC_Vendor;
    // clang-format off
    const std::vector<Row> rows = {
        // Listing the handles asks for the storage id first, and stops where that fails.
        {orq::PTP_OC_GetStorageIDs, {}, "PTP_OC_GetStorageIDs failed",
         [](D& d) { return d.PTPGetObjectHandles(Out<std::vector<uint32_t>>()); }},
        {orq::PTP_OC_GetObjectHandles, {0x00010001, 0, 0}, "PTP_OC_GetObjectHandles failed",
         [](D& d) { return d.PTPGetObjectHandles(Out<std::vector<uint32_t>>()); }},
        {orq::PTP_OC_GetObjectInfo, {5}, "PTP_OC_GetObjectInfo failed",
         [](D& d) { return d.PTPGetObjectInfo(5, Out<OrqFileInfo>()); }},
        {orq::PTP_OC_GetObject, {5}, "PTP_OC_GetObject failed",
         [](D& d) { return d.PTPGetObject(5, Out<B>()); }},
        {orq::PTP_OC_DeleteObject, {5, 0}, "PTP_OC_DeleteObject failed",
         [](D& d) { return d.PTPDeleteObject(5); }},
        {V, {1, 0x10364, 36}, "PTP_CHDK_GetMemory failed",
         [](D& d) { return d.PTPGetMemory(0x10364, 36, Out<B>()); }},
        {V, {11}, "PTP_CHDK_GetVideoSettings failed",
         [](D& d) { return d.PTPGetVideoSettings(Out<B>()); }},
        {V, {129, 57, 1}, "PTP_ORQM_GetPropCase failed",
         [](D& d) { return d.PTPGetPropCase(57, Out<int32_t>()); }},
        {V, {131}, "PTP_ORQM_GetZoom failed", [](D& d) { return d.PTPGetZoom(Out<int32_t>()); }},
        {V, {132, 4}, "PTP_ORQM_SetZoom failed", [](D& d) { return d.PTPSetZoom(4); }},
        {V, {140}, "PTP_ORQM_Set_Play_Mode failed", [](D& d) { return d.PTPSetPlayMode(); }},
        {V, {145}, "PTP_ORQM_GetOrqmVersion failed",
         [](D& d) { return d.PTPGetOrqmVersion(Out<std::string>()); }},
        {V, {147}, "PTP_ORQM_Shoot failed", [](D& d) { return d.PTPShoot(); }},
        {V, {148}, "PTP_ORQM_UpdateAEAF failed", [](D& d) { return d.PTPUpdateAEAF(); }},
        {V, {149}, "PTP_ORQM_GetEvents failed", [](D& d) { return d.PTPLoadEvents(); }},
        {V, {150}, "PTP_ORQM_GetMode failed", [](D& d) { return d.PTPGetMode(Out<uint32_t>()); }},
        {V, {153}, "PTP_ORQM_GetCamLog failed", [](D& d) { return d.PTPGetCamLogRequest(); }},
        {V, {154}, "PTP_ORQM_MfOn failed", [](D& d) { return d.PTPMfOn(); }},
        // The camera module names both switches alike.
        {V, {155}, "PTP_ORQM_MfOn failed", [](D& d) { return d.PTPMfOff(); }},
        {V, {156, 300}, "PTP_ORQM_MoveFocusTo failed",
         [](D& d) { return d.PTPMoveFocusTo(300, Out<int32_t>()); }},
        {V, {157}, "PTP_ORQM_GetFocusParams failed",
         [](D& d) { return d.PTPGetFocusParams(Out<int32_t>()); }},
        {V, {158}, "PTP_ORQM_GetVBat failed",
         [](D& d) { return d.PTPGetVBat(Out<uint32_t>(), Out<uint32_t>(), Out<uint32_t>()); }},
        {V, {160, 32772}, "PTP_ORQM_SetCaptureMode failed",
         [](D& d) { return d.PTPSetCaptureMode(32772); }},
        {V, {161}, "PTP_ORQM_GetSerialNumber failed",
         [](D& d) { return d.PTPGetSerialNumber(Out<std::u16string>()); }},
        {V, {162}, "PTP_ORQM_Reset failed", [](D& d) { return d.PTPReset(); }},
        {V, {163}, "PTP_ORQM_RemoteCaptureStart failed",
         [](D& d) { return d.PTPRemoteCaptureStart(); }},
        {V, {164}, "PTP_ORQM_RemoteCaptureIsReady failed",
         [](D& d) { return d.PTPRemoteCaptureIsReady(Out<bool>()); }},
        {V, {165, 1}, "PTP_ORQM_RemoteCaptureGetData failed",
         [](D& d) { return d.PTPRemoteCaptureGetData(Out<B>(), Out<std::vector<uint32_t>>()); }},
        {V, {166}, "PTP_ORQM_StartVideo failed", [](D& d) { return d.PTPStartVideoRequest(); }},
        {V, {167}, "PTP_ORQM_StopVideo failed", [](D& d) { return d.PTPStopVideoRequest(); }},
        // Last: the camera is left without a session.
        {orq::PTP_OC_OpenSession, {1}, "PTP_OC_OpenSession failed",
         [](D& d) { return d.PTPOpenSession(); }},
    };
    // clang-format on
    for (const Row& row : rows) {
        const int64_t subCommand = row.code == V ? row.params[0] : -1;
        SCOPED_TRACE(std::string(row.failure) + " " + std::to_string(subCommand));
        camera->ClearOperations();
        camera->InjectFault(
            Fault::Operation(Fault::ResponseCode, row.code, subCommand, orqsim::RC_AccessDenied));
        logStart = LogSize();
        EXPECT_EQ(row.call(*link), ORQ_ERROR);
        auto ops = camera->Operations();
        ASSERT_FALSE(ops.empty());
        EXPECT_EQ(ops.back().code, row.code);
        EXPECT_EQ(ops.back().params, row.params);
        EXPECT_EQ(camera->CountOperations(row.code), 1u);
        auto log = Log();
        EXPECT_EQ(Count(log, row.failure), 1);
        EXPECT_EQ(Count(log, "PtpTransaction failed"), 1);
    }
}

TEST_F(OperationsTest, FixedSizeGettersCopyTheAskedWordsWhateverTheBlock) {
    uint32_t current = 1, maximum = 1, minimum = 1;
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
    // Text after the first zero byte is not part of it; a text without one ends with the block.
    const std::pair<Bytes, std::string> versions[] = {{{'3', '.', '2', 0, '9', '9'}, "3.2"},
                                                      {{'4', '.', '0'}, "4.0"}};
    for (const auto& [bytes, text] : versions) {
        camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetOrqmVersion, DataThenOk(bytes)));
        std::string version;
        ASSERT_EQ(link->PTPGetOrqmVersion(version), ORQ_OK);
        EXPECT_EQ(version, text);
    }
    // One character from every second byte: the high halves are dropped.
    const std::pair<Bytes, std::u16string> serials[] = {{{'A', 0x01, 'B', 0, 'C'}, u"ABC"},
                                                        {{}, u""}};
    for (const auto& [bytes, text] : serials) {
        camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetSerialNumber, DataThenOk(bytes)));
        std::u16string serial = u"x";
        ASSERT_EQ(link->PTPGetSerialNumber(serial), ORQ_OK);
        EXPECT_EQ(serial, text);
    }
}

TEST_F(OperationsTest, ModeWaitEndsInRecordMode) {
    camera->SetCameraMode(0);
    std::thread wheel([&] {
        std::this_thread::sleep_for(250ms);
        camera->SetCameraMode(1);
    });
    EXPECT_EQ(link->PTPWaitRecMode(), ORQ_OK);
    wheel.join();
    EXPECT_GE(camera->CountOperations(PTP_OC_Vendor, orq::ORQM_GetMode), 2u);

    camera->SetCameraMode(0);
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, orq::ORQM_GetMode,
                                         orqsim::RC_AccessDenied));
    EXPECT_EQ(link->PTPWaitRecMode(), ORQ_ERROR);
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
}

}  // namespace
}  // namespace linktest
