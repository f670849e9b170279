// The OrqSim exports: a camera attached by model, driven through the link, and its cable.
#include <chrono>
#include <thread>

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

TEST_F(SimExportsTest, AttachedCameraIsOnTheBusUnderItsModel) {
    OrqSimCamera camera = OrqSimAttachCamera("A810");
    ASSERT_NE(camera, 0);
    std::u16string path = PathOf(camera);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 1u);
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
}

TEST_F(SimExportsTest, WheelBatteryAndFaultsReachTheLink) {
    OrqSimCamera camera = OrqSimAttachCamera("SX160");
    auto link = Open(camera);
    ASSERT_EQ(OrqSimSetModeWheel(camera, 32770), ORQ_OK);
    int32_t raw = 0;
    ASSERT_EQ(link->PTPGetPropCase(49, raw), ORQ_OK);
    EXPECT_EQ(raw, 32770);
    ASSERT_EQ(OrqSimSetBattery(camera, 3000, 4100, 3100), ORQ_OK);
    uint32_t current = 0, maximum = 0, minimum = 0;
    ASSERT_EQ(link->PTPGetVBat(current, maximum, minimum), ORQ_OK);
    EXPECT_EQ(current, 3000u);

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

TEST_F(SimExportsTest, CableCanBePulledAndPluggedAgain) {
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
    link = Open(camera);
    EXPECT_EQ(OrqSimGetFileCount(camera), 1);

    link.reset();
    ASSERT_EQ(OrqSimRemoveCamera(camera), ORQ_OK);
    EXPECT_EQ(usb->GetAllConnectedDevicePaths().count(path), 0u);
    EXPECT_EQ(OrqSimGetFileCount(camera), -1);
}

struct CountingNotify : orq::IUsbLib_Notify {
    std::atomic<int> changes{0};
    void OnDeviceChange() override { ++changes; }
    bool WaitFor(int count) {
        for (int i = 0; i < 1000 && changes < count; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return changes >= count;
    }
};

TEST_F(SimExportsTest, AttachAndDetachAreNotified) {
    CountingNotify counting;
    auto watcher = orqsim::CreateVirtualUsbLib(&counting);
    OrqSimCamera camera = OrqSimAttachCamera("SX40");
    EXPECT_TRUE(counting.WaitFor(1));
    int attached = counting.changes;
    ASSERT_EQ(OrqSimDetachCamera(camera), ORQ_OK);
    EXPECT_TRUE(counting.WaitFor(attached + 1));
}

TEST_F(SimExportsTest, UnknownModelIsAttachedButHasNoProfile) {
    OrqSimCamera camera = OrqSimAttachCamera("Z9");
    ASSERT_NE(camera, 0);
    orq::DeviceLL link(usb.get(), &config, PathOf(camera));
    EXPECT_EQ(link.OpenCamera(), ORQ_ERROR);
    EXPECT_EQ(OrqSimAttachCamera(nullptr), 0);
}

}  // namespace
}  // namespace linktest
