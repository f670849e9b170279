// The OrqSim exports the SDK-level tests do not reach: a camera's card, path, operation count
// and fault record driven through the link, and the cable's refusals. Attaching, hot-plug and
// unknown models are the manager's tests.
#include "link_support.h"
#include "orqsdk_sim.h"

namespace linktest {
namespace {

std::u16string PathOf(OrqSimCamera camera) {
    OrqChar buffer[128] = {};
    if (OrqSimGetCameraPath(camera, buffer, 128) != ORQ_OK) return u"";
    return std::u16string(reinterpret_cast<const char16_t*>(buffer));
}

class SimExportsTest : public ::testing::Test {
protected:
    void TearDown() override { OrqSimRemoveAll(); }

    std::unique_ptr<orq::DeviceLL> Open(OrqSimCamera camera) {
        auto link = std::make_unique<orq::DeviceLL>(usb.get(), &config, PathOf(camera));
        EXPECT_EQ(link->OpenCamera(), ORQ_OK);
        EXPECT_EQ(link->PTPOpenSession(), ORQ_OK);
        return link;
    }

    QuietNotify notify;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb = orqsim::CreateVirtualUsbLib(&notify);
};

TEST_F(SimExportsTest, CardOperationsAndFaultsOfAnAttachedCamera) {
    EXPECT_EQ(OrqSimAttachCamera(nullptr), 0);
    OrqSimCamera camera = OrqSimAttachCamera("A810");
    ASSERT_NE(camera, 0);
    auto link = Open(camera);
    EXPECT_EQ(link->Config().name, u"A810");

    int32_t handle = OrqSimAddFile(camera, LINK_TEXT("IMG_0042.JPG"), "abc", 3);
    ASSERT_GE(handle, 0);
    EXPECT_EQ(OrqSimGetFileCount(camera), 1);
    orq::PtpDataBlock block;
    ASSERT_EQ(link->PTPGetObject(static_cast<uint32_t>(handle), block), ORQ_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(block.data.get()), block.size), "abc");
    ASSERT_EQ(link->PTPDeleteObject(static_cast<uint32_t>(handle)), ORQ_OK);
    EXPECT_EQ(OrqSimGetFileCount(camera), 0);
    EXPECT_EQ(OrqSimCountOperations(camera, orq::PTP_OC_GetObject, -1), 1);
    EXPECT_EQ(OrqSimCountOperations(camera, orq::PTP_OC_OpenSession, 0), 1);

    // A zero-filled fault record: any operation, once.
    OrqSimFault fault{};
    fault.kind = ORQSIM_RESPONSE_CODE;
    fault.value = 0x2019;
    ASSERT_EQ(OrqSimInjectFault(camera, &fault), ORQ_OK);
    EXPECT_EQ(link->PTPUpdateAEAF(), ORQ_ERROR);
    EXPECT_EQ(link->PTPUpdateAEAF(), ORQ_OK);
    fault.kind = 99;
    EXPECT_EQ(OrqSimInjectFault(camera, &fault), ORQ_ERROR);
}

TEST_F(SimExportsTest, CableCanBePulledOnceAndPluggedAgain) {
    OrqSimCamera camera = OrqSimAttachCamera("G15");
    OrqSimAddFile(camera, LINK_TEXT("IMG_0001.JPG"), "x", 1);
    std::u16string path = PathOf(camera);
    auto link = Open(camera);
    ASSERT_EQ(OrqSimDetachCamera(camera), ORQ_OK);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 0u);
    EXPECT_EQ(link->PTPUpdateAEAF(), ORQ_ERROR);
    EXPECT_EQ(OrqSimDetachCamera(camera), ORQ_ERROR);

    link.reset();
    ASSERT_EQ(OrqSimReattachCamera(camera), ORQ_OK);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 1u);
    link = Open(camera);
    EXPECT_EQ(OrqSimGetFileCount(camera), 1);

    link.reset();
    ASSERT_EQ(OrqSimRemoveCamera(camera), ORQ_OK);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 0u);
    EXPECT_EQ(OrqSimGetFileCount(camera), -1);
}

}  // namespace
}  // namespace linktest
