// A DeviceLL that records its upward notifications, and the running of a multi-step operation
// as the main loop would.
#pragma once

#include <map>

#include "tests/support/support.h"

namespace controlstest {

using namespace orqtest;

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

// A session on an SX160 unless a fixture says otherwise.
class ControlsTest : public DeviceTest<ControlsDevice> {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        Mark();
    }
    // Forgets what came so far: notifications, the camera's operations and the log.
    void Mark() {
        device->notes.clear();
        DeviceTest::Mark();
    }
};

}  // namespace controlstest
