// Properties through the C API: what start-up, the poll and the caller's thread add to the engine.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "orqsdk.h"
#include "sim/VirtualCamera.h"

namespace {

// What the callbacks saw, counted for the test's thread.
struct Seen {
    std::atomic<int> modeChanges{0}, listChanges{0};

    static void Property(void* self, int id) { static_cast<Seen*>(self)->modeChanges += id == 0; }
    static void List(void* self) { ++static_cast<Seen*>(self)->listChanges; }
};

std::shared_ptr<orqsim::VirtualCamera> Plug(const std::string& model, const std::u16string& path) {
    orqsim::CameraOptions options;
    options.model = model;
    auto camera = std::make_shared<orqsim::VirtualCamera>(options);
    camera->SetModeWheel(32772);  // Program
    EXPECT_TRUE(camera->PlugIn(path));
    return camera;
}

// Only EXPECTs until the SDK is terminated: it must not outlive `seen`.
TEST(PropsSession, StartUpThenTheWheelAndSetsReportChanges) {
    auto sx170 = Plug("SX170", u"props-e2e-sx170");
    auto a1400 = Plug("A1400", u"props-e2e-a1400");
    EXPECT_EQ(OrqInitializeSDK(), ORQ_OK);
    OrqCameraManagerHandle manager = OrqGetCameraManager();
    OrqCameraInfo* list = nullptr;
    int count = 0;
    EXPECT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
    EXPECT_EQ(count, 2);
    OrqSessionHandle s = nullptr;
    for (int i = 0; i < count; ++i) {
        const std::u16string path(reinterpret_cast<const char16_t*>(list[i].path));
        if (path == u"props-e2e-sx170") OrqOpenSession(manager, list[i].id, &s);
    }
    // Manual focus is switched off at start where the model has the property.
    EXPECT_EQ(sx170->CountOperations(0x9999, 155), 1u);
    EXPECT_EQ(a1400->CountOperations(0x9999, 155) + a1400->CountOperations(0x9999, 154), 0u);

    // The poll follows the wheel turned at the camera.
    Seen seen;
    OrqPropertyChangedSubscribe(s, &Seen::Property, &seen);
    OrqPropertyListChangedSubscribe(s, &Seen::List, &seen);
    sx170->SetModeWheel(32769);  // Manual
    for (int i = 0; i < 600 && seen.listChanges == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(seen.listChanges, 1);
    EXPECT_EQ(seen.modeChanges, 1);
    // A set reports the list change on the caller's thread, not the main loop's.
    EXPECT_EQ(OrqSetPropertyData(s, 15, 11), ORQ_OK);
    EXPECT_EQ(seen.listChanges, 2);

    OrqTerminateSDK();  // frees the list, session, manager and subscriptions
    sx170->Unplug();
    a1400->Unplug();
}

}  // namespace
