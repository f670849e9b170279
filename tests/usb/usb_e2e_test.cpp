// The production library end to end on emulated USB: virtual cameras behind umockdev devices,
// reached through libusb and the backend, driven through the C API only. What happens on
// plugging, unplugging and failed start-ups is left to the backend's and the SDK's own tests.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "orqsdk.h"
#include "sim/VirtualCamera.h"
#include "tests/usb/EmulatedUsb.h"

namespace orqtest {
namespace {

using namespace std::chrono_literals;

class UsbEndToEnd : public ::testing::Test {
protected:
    // The SDK (and with it the last libusb context) goes before the emulated bus.
    void TearDown() override {
        if (!manager) return;
        OrqFree(session);
        OrqFree(manager);
        OrqTerminateSDK();
    }

    EmulatedUsbBus bus;
    OrqCameraManagerHandle manager = nullptr;
    OrqSessionHandle session = nullptr;
};

TEST_F(UsbEndToEnd, TheFreeCameraIsListedAndItsPropertiesReachIt) {
    orqsim::CameraOptions options;
    options.model = "G15";
    auto g15 = std::make_shared<orqsim::VirtualCamera>(options);
    g15->SetModeWheel(32769);  // manual: every property of the model is on offer
    std::u16string path = bus.Plug(g15);
    EmulatedDeviceOptions busy;  // another program holds this one: its start-up fails
    busy.held = true;
    bus.Plug(std::make_shared<orqsim::VirtualCamera>(), busy);
    // Another program on this machine may hold the SDK for a while (a developer's tests).
    OrqResult result = OrqInitializeSDK();
    for (int i = 0; i < 600 && result == ORQ_SECOND_PROCESS; ++i) {
        std::this_thread::sleep_for(200ms);
        result = OrqInitializeSDK();
    }
    ASSERT_EQ(result, ORQ_OK);
    manager = OrqGetCameraManager();
    OrqCameraInfo* list = nullptr;
    int count = 0;
    ASSERT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(std::u16string(list[0].path), path);
    EXPECT_EQ(std::u16string(list[0].serial), g15->Options().serialNumber);
    const int id = static_cast<int>(list[0].id);
    OrqFree(list);

    // Property 15 of the G15 goes to the camera as property case 188.
    ASSERT_EQ(OrqOpenSession(manager, id, &session), ORQ_OK);
    EXPECT_EQ(OrqSetPropertyData(session, 15, 11), ORQ_OK);
    for (int i = 0; i < 1000 && g15->PropCase(188) != 11; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(g15->PropCase(188), 11);
    int value = -1;
    EXPECT_EQ(OrqGetPropertyData(session, 15, &value), ORQ_OK);
    EXPECT_EQ(value, 11);
}

}  // namespace
}  // namespace orqtest
