// The OrqSim exports the SDK-level tests do not reach: a camera's path, card and fault record,
// and the cable's refusals. Attaching, hot-plug and unknown models are the manager's tests.
#include "orqsdk_sim.h"
#include "tests/support/support.h"

namespace linktest {
using namespace orqtest;
namespace {

TEST(SimExports, RefusalsAndACardThatOutlivesTheCable) {
    struct : orq::IUsbLib_Notify {
        void OnDeviceChange() override {}
    } notify;
    orq::SDKConfig config;
    auto usb = orqsim::CreateVirtualUsbLib(&notify);
    EXPECT_EQ(OrqSimAttachCamera(nullptr), 0);
    OrqSimCamera camera = OrqSimAttachCamera("A810");
    OrqChar buffer[128] = {};
    ASSERT_EQ(OrqSimGetCameraPath(camera, buffer, 128), ORQ_OK);
    const std::u16string path(reinterpret_cast<const char16_t*>(buffer));
    ASSERT_GE(OrqSimAddFile(camera, reinterpret_cast<const OrqChar*>(u"A.JPG"), "abc", 3), 0);

    // A zero-filled fault record: any operation, once.
    auto device = std::make_unique<orq::DeviceLL>(usb.get(), &config, path);
    ASSERT_EQ(device->OpenCamera(), ORQ_OK);
    OrqSimFault fault{};
    fault.kind = ORQSIM_RESPONSE_CODE;
    fault.value = 0x2019;
    ASSERT_EQ(OrqSimInjectFault(camera, &fault), ORQ_OK);
    EXPECT_EQ(device->PTPOpenSession(), ORQ_ERROR);
    EXPECT_EQ(device->PTPOpenSession(), ORQ_OK);
    fault.kind = 99;
    EXPECT_EQ(OrqSimInjectFault(camera, &fault), ORQ_ERROR);
    device.reset();

    // The cable can be pulled once and plugged again; the card stays with the camera.
    ASSERT_EQ(OrqSimDetachCamera(camera), ORQ_OK);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 0u);
    EXPECT_EQ(OrqSimDetachCamera(camera), ORQ_ERROR);
    ASSERT_EQ(OrqSimReattachCamera(camera), ORQ_OK);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 1u);
    EXPECT_EQ(OrqSimGetFileCount(camera), 1);

    ASSERT_EQ(OrqSimRemoveCamera(camera), ORQ_OK);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 0u);
    EXPECT_EQ(OrqSimGetFileCount(camera), -1);
    OrqSimRemoveAll();
}

}  // namespace
}  // namespace linktest
