// The standard and vendor wrappers against the virtual camera: what goes on the wire, what comes
// back, and what each logs when the camera refuses.
#include <functional>

#include "tests/support/support.h"

namespace linktest {
using namespace orqtest;
namespace {

using orq::DeviceLL;
using orq::PTP_OC_Vendor;

class OperationsTest : public DeviceTest<> {
protected:
    OperationsTest() { load = false; }
};

// Somewhere for a wrapper to put what the test does not look at.
template <class T>
T& Out() {
    static T value;
    return value;
}

// The wrappers with parameters of their own and, of those that only send a sub-command (one shared
// path, differing in the line alone), the one whose line names another.
TEST_F(OperationsTest, WrappersSendTheirParametersAndLogTheirLine) {
    struct Row {
        uint16_t code;
        std::vector<uint32_t> params;  // as sent; a vendor operation's sub-command first
        const char* failure;           // the wrapper's own line
        std::function<OrqResult(DeviceLL&)> call;
    };
    using D = DeviceLL;
    const uint16_t V = PTP_OC_Vendor;
    // clang-format off
    const std::vector<Row> rows = {
        // Listing the handles asks for the storage id first, and stops where that fails.
        {orq::PTP_OC_GetStorageIDs, {}, "PTP_OC_GetStorageIDs failed",
         [](D& d) { return d.PTPGetObjectHandles(Out<std::vector<uint32_t>>()); }},
        {orq::PTP_OC_GetObjectHandles, {0x00010001, 0, 0}, "PTP_OC_GetObjectHandles failed",
         [](D& d) { return d.PTPGetObjectHandles(Out<std::vector<uint32_t>>()); }},
        {orq::PTP_OC_DeleteObject, {5, 0}, "PTP_OC_DeleteObject failed",
         [](D& d) { return d.PTPDeleteObject(5); }},
        {V, {129, 57, 1}, "PTP_ORQM_GetPropCase failed",
         [](D& d) { return d.PTPGetPropCase(57, Out<int32_t>()); }},
        // The camera module names both switches alike.
        {V, {155}, "PTP_ORQM_MfOn failed", [](D& d) { return d.PTPMfOff(); }},
        {V, {165, 1}, "PTP_ORQM_RemoteCaptureGetData failed",
         [](D& d) { return d.PTPRemoteCaptureGetData(Out<orq::PtpDataBlock>(),
                                                     Out<std::vector<uint32_t>>()); }},
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
        EXPECT_EQ(row.call(*device), ORQ_ERROR);
        auto ops = camera->Operations();
        ASSERT_FALSE(ops.empty());
        EXPECT_EQ(ops.back().code, row.code);
        EXPECT_EQ(ops.back().params, row.params);
        EXPECT_EQ(camera->CountOperations(row.code), 1u);
        EXPECT_EQ(Count(Log(), row.failure), 1);
    }
}

TEST_F(OperationsTest, FixedSizeGettersCopyTheAskedWordsWhateverTheBlock) {
    uint32_t current = 1, maximum = 1, minimum = 1;
    camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetVBat, DataThen(Words({3700}))));
    ASSERT_EQ(device->PTPGetVBat(current, maximum, minimum), ORQ_OK);
    EXPECT_EQ((std::vector<uint32_t>{current, maximum, minimum}),
              (std::vector<uint32_t>{3700, 0, 0}));

    std::vector<uint32_t> words{42};
    camera->InjectFault(Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, -1, 0x2005));
    EXPECT_EQ(device->PTPORQMGet(orq::ORQM_GetFocusParams, 2, words), ORQ_ERROR);
    EXPECT_EQ(words, (std::vector<uint32_t>{42}));
    EXPECT_EQ(Count(Log(), "PTPORQMGet failed: 157"), 1);
}

TEST_F(OperationsTest, VersionTextEndsAtTheFirstZeroOrWithTheBlock) {
    // Text after the first zero byte is not part of it; a text without one ends with the block.
    const std::pair<Bytes, std::string> versions[] = {{{'3', '.', '2', 0, '9', '9'}, "3.2"},
                                                      {{'4', '.', '0'}, "4.0"}};
    for (const auto& [bytes, text] : versions) {
        camera->InjectFault(Raw(PTP_OC_Vendor, orq::ORQM_GetOrqmVersion, DataThen(bytes)));
        std::string version;
        ASSERT_EQ(device->PTPGetOrqmVersion(version), ORQ_OK);
        EXPECT_EQ(version, text);
    }
}

TEST_F(OperationsTest, ModeWaitPollsUntilRecordModeOrAFailure) {
    const uint16_t getMode = orq::ORQM_GetMode;
    camera->InjectFault(Raw(PTP_OC_Vendor, getMode, DataThen(Words({0}))));
    EXPECT_EQ(device->PTPWaitRecMode(), ORQ_OK);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, getMode), 2u);

    camera->SetCameraMode(0);
    Fault refused =
        Fault::Operation(Fault::ResponseCode, PTP_OC_Vendor, getMode, orqsim::RC_AccessDenied);
    refused.skip = 1;
    camera->InjectFault(refused);
    EXPECT_EQ(device->PTPWaitRecMode(), ORQ_ERROR);
    EXPECT_EQ(camera->CountOperations(PTP_OC_Vendor, getMode), 4u);
}

TEST_F(OperationsTest, EventBitsReachTheirReaderOnly) {
    camera->RaiseEvents(orq::SHOOT_FINISHED);
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    // An empty mask clears nothing.
    ASSERT_EQ(device->PTPLoadEvents(), ORQ_OK);
    EXPECT_TRUE(device->CameraEvent(orq::CAMERA_EVENT_SHOOT_FINISHED));

    // The direct-transfer reader consumes no bit of the others.
    camera->RaiseEvents(0xFFFF);
    device->ShootDirectEvent();
    EXPECT_FALSE(device->CameraEvent(orq::CAMERA_EVENT_ZOOM_FINISHED));
}

}  // namespace
}  // namespace linktest
