// A DeviceLL on a virtual camera that records its upward notifications and lets the tests see
// the zoom and preview state; and the running of a multi-step operation as the main loop would.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Kernel/DeviceLL.h"
#include "tests/link/link_support.h"

namespace controlstest {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

class ControlsDevice : public orq::DeviceLL {
public:
    using DeviceLL::DeviceLL;

    void OnZoomChanged() override { Note("zoom changed"); }
    void OnZoomCompleted() override { Note("zoom completed"); }
    void OnFocusChanged() override { Note("focus changed"); }
    void OnNewPreviewFrame() override { Note("preview"); }
    // Kept outside the object, as the memory manager keeps them, so that a frame can be
    // released after the camera has gone.
    void RegisterPointer(void* pointer, std::function<void(void*)> free) override {
        (*released)[pointer] = std::move(free);
    }

    Strings Notes() {
        std::lock_guard<std::mutex> guard(notesLock);
        return notes;
    }
    void ClearNotes() {
        std::lock_guard<std::mutex> guard(notesLock);
        notes.clear();
    }
    void SetMaxZoom(int32_t value) { config.maxZoom = value; }
    int32_t Ready() {
        std::lock_guard<std::mutex> guard(preview->previewLock);
        return preview->previewReady;
    }
    // As if the settings had been read long ago: the next frame reads them again.
    void AgeVideoSettings() { videoSettingsTime = 1; }

    std::shared_ptr<std::map<void*, std::function<void(void*)>>> released =
        std::make_shared<std::map<void*, std::function<void(void*)>>>();

private:
    void Note(const char* what) {
        std::lock_guard<std::mutex> guard(notesLock);
        notes.push_back(what);
    }
    std::mutex notesLock;
    Strings notes;
};

struct ProcOutcome {
    OrqResult result = ORQ_ERROR;
    int steps = 0;
};

// Runs the operation's steps, honouring their delays, until one ends it.
inline ProcOutcome RunProc(std::unique_ptr<orq::ContProc> proc) {
    ProcOutcome outcome;
    for (bool again = true; again && outcome.steps < 200; ++outcome.steps) {
        std::chrono::milliseconds delay(0);
        again = false;
        proc->step(proc.get(), &delay, &outcome.result, &again);
        std::this_thread::sleep_for(delay);
    }
    return outcome;
}

// A session on a fresh virtual camera with its properties loaded, as after start-up.
class ControlsTest : public ::testing::Test {
protected:
    virtual orqsim::CameraOptions Options() { return {}; }

    void SetUp() override {
        static int serial = 0;
        path = u"orqsim://controls/" + orq::platform::FromUtf8(std::to_string(++serial));
        camera = std::make_shared<orqsim::VirtualCamera>(Options());
        ASSERT_TRUE(camera->PlugIn(path));
        camera->SetStallLimit(60);
        usb = orqsim::CreateVirtualUsbLib(&notify);
        device = std::make_unique<ControlsDevice>(usb.get(), &config, path);
        ASSERT_EQ(device->OpenCamera(), ORQ_OK);
        ASSERT_EQ(device->PTPOpenSession(), ORQ_OK);
        ASSERT_EQ(device->LoadProperties(), ORQ_OK);
        camera->ClearOperations();
        logStart = linktest::LogSize();
    }

    void TearDown() override {
        device.reset();
        camera->Unplug();
        usb.reset();
    }

    Strings Log() const { return linktest::MessagesSince(logStart); }
    size_t Ops(uint32_t subCommand) const {
        return camera->CountOperations(orq::PTP_OC_Vendor, subCommand);
    }
    // Parameters after the sub-command of each such operation.
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

    std::u16string path;
    std::shared_ptr<orqsim::VirtualCamera> camera;
    linktest::QuietNotify notify;
    orq::SDKConfig config;
    std::unique_ptr<orq::UsbLib> usb;
    std::unique_ptr<ControlsDevice> device;
    size_t logStart = 0;
};

}  // namespace controlstest
