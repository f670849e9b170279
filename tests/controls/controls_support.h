// A DeviceLL on a virtual camera that records its upward notifications, and the running of a
// multi-step operation as the main loop would.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include "tests/link/link_support.h"

namespace controlstest {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

// The DeviceLL-level tests drive it from their own thread only.
class ControlsDevice : public orq::DeviceLL {
public:
    using DeviceLL::DeviceLL;

    void OnZoomChanged() override { notes.push_back("zoom changed"); }
    void OnZoomCompleted() override { notes.push_back("zoom completed"); }
    void OnFocusChanged() override { notes.push_back("focus changed"); }
    void OnNewPreviewFrame() override { notes.push_back("preview"); }
    // Kept outside the object, as the memory manager keeps them, so that a frame can be
    // released after the camera has gone.
    void RegisterPointer(void* pointer, std::function<void(void*)> free) override {
        (*released)[pointer] = std::move(free);
    }
    void SetMaxZoom(int32_t value) { config.maxZoom = value; }
    // As if the settings had been read long ago: the next frame reads them again.
    void AgeVideoSettings() { videoSettingsTime = 1; }

    Strings notes;  // the upward notifications, in order
    std::shared_ptr<std::map<void*, std::function<void(void*)>>> released =
        std::make_shared<std::map<void*, std::function<void(void*)>>>();
};

// Runs the operation's steps, honouring their delays, until one ends it; counts the steps.
inline OrqResult RunProc(std::unique_ptr<orq::ContProc> proc, int* steps = nullptr) {
    OrqResult result = ORQ_ERROR;
    int count = 0;
    for (bool again = true; again && count < 200; ++count) {
        std::chrono::milliseconds delay(0);
        again = false;
        proc->step(proc.get(), &delay, &result, &again);
        std::this_thread::sleep_for(delay);
    }
    if (steps) *steps = count;
    return result;
}

// A session on a fresh virtual camera (an SX160 unless a fixture says otherwise) with its
// properties loaded, as after start-up.
class ControlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        static int serial = 0;
        const std::u16string path =
            u"orqsim://controls/" + orq::platform::FromUtf8(std::to_string(++serial));
        camera = std::make_shared<orqsim::VirtualCamera>(options);
        ASSERT_TRUE(camera->PlugIn(path));
        camera->SetStallLimit(60);
        usb = orqsim::CreateVirtualUsbLib(&notify);
        device = std::make_unique<ControlsDevice>(usb.get(), &config, path);
        ASSERT_EQ(device->OpenCamera(), ORQ_OK);
        ASSERT_EQ(device->PTPOpenSession(), ORQ_OK);
        ASSERT_EQ(device->LoadProperties(), ORQ_OK);
        Mark();
    }
    void TearDown() override {
        device.reset();
        camera->Unplug();
        usb.reset();
    }

    // Forgets what came so far: notifications, the camera's operations and the log.
    void Mark() {
        device->notes.clear();
        camera->ClearOperations();
        logStart = linktest::LogSize();
    }
    Strings Log() const { return linktest::MessagesSince(logStart); }
    size_t Ops(uint32_t subCommand) const {
        return camera->CountOperations(orq::PTP_OC_Vendor, subCommand);
    }
    // The first parameter after the sub-command of each such operation.
    std::vector<int32_t> Params(uint32_t subCommand) const {
        std::vector<int32_t> params;
        for (const auto& op : camera->Operations()) {
            if (op.SubCommand() == subCommand && op.params.size() > 1) {
                params.push_back(static_cast<int32_t>(op.params[1]));
            }
        }
        return params;
    }
    void InjectFailure(uint32_t subCommand) {
        camera->InjectFault(orqsim::Fault::Operation(orqsim::Fault::ResponseCode,
                                                     orq::PTP_OC_Vendor, subCommand,
                                                     orqsim::RC_OperationNotSupported));
    }

    orqsim::CameraOptions options;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    linktest::QuietNotify notify;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb;
    std::unique_ptr<ControlsDevice> device;
    size_t logStart = 0;
};

}  // namespace controlstest
