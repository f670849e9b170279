// Properties end to end through the C API: what start-up, the main loop's poll and the caller's
// thread add to the property engine, on a virtual camera with Manual Focus Mode and one without.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "orqsdk.h"
#include "sim/VirtualCamera.h"

namespace {

using namespace std::chrono_literals;

// What the callbacks saw, counted for the test's thread.
struct Seen {
    std::atomic<int> modeChanges{0}, otherChanges{0}, listChanges{0};

    static void Property(void* self, int id) {
        auto* seen = static_cast<Seen*>(self);
        ++(id == 0 ? seen->modeChanges : seen->otherChanges);
    }
    static void List(void* self) { ++static_cast<Seen*>(self)->listChanges; }
};

template <class Pred>
bool Eventually(Pred pred) {
    for (auto end = std::chrono::steady_clock::now() + 6s; !pred();
         std::this_thread::sleep_for(10ms)) {
        if (std::chrono::steady_clock::now() > end) return false;
    }
    return true;
}

std::shared_ptr<orqsim::VirtualCamera> Plug(const std::string& model, const std::u16string& path) {
    orqsim::CameraOptions options;
    options.model = model;
    auto camera = std::make_shared<orqsim::VirtualCamera>(options);
    camera->SetModeWheel(32772);  // Program
    EXPECT_TRUE(camera->PlugIn(path));
    return camera;
}

// The SDK started over whatever is plugged in, with a session on one camera.
struct Sdk {
    explicit Sdk(const std::u16string& path) {
        EXPECT_EQ(OrqInitializeSDK(), ORQ_OK);
        manager = OrqGetCameraManager();
        OrqCameraInfo* list = nullptr;
        EXPECT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
        for (int i = 0; i < count; ++i) {
            if (std::u16string(reinterpret_cast<const char16_t*>(list[i].path)) != path) continue;
            EXPECT_EQ(OrqOpenSession(manager, list[i].id, &session), ORQ_OK);
        }
        OrqFree(list);
    }
    ~Sdk() {
        if (session) OrqFree(session);
        OrqFree(manager);
        OrqTerminateSDK();
    }

    OrqCameraManagerHandle manager = nullptr;
    OrqSessionHandle session = nullptr;
    int count = 0;
};

bool Lists(OrqSessionHandle session, int id) {
    int* list = nullptr;
    int count = 0;
    EXPECT_EQ(OrqGetPropertyList(session, &list, &count), ORQ_OK);
    const bool found = std::find(list, list + count, id) != list + count;
    OrqFree(list);
    return found;
}

TEST(PropsSession, StartUpThenTheWheelAndSetsReportChanges) {
    auto sx170 = Plug("SX170", u"props-e2e-sx170");
    auto a1400 = Plug("A1400", u"props-e2e-a1400");
    {
        Sdk sdk(u"props-e2e-sx170");
        ASSERT_EQ(sdk.count, 2);
        ASSERT_NE(sdk.session, nullptr);
        OrqSessionHandle s = sdk.session;
        // Manual focus is switched off at start where the model has the property.
        EXPECT_EQ(sx170->CountOperations(0x9999, 155), 1u);
        EXPECT_EQ(a1400->CountOperations(0x9999, 155) + a1400->CountOperations(0x9999, 154), 0u);

        // The poll follows the wheel turned at the camera.
        Seen seen;
        OrqSubscription changed = OrqPropertyChangedSubscribe(s, &Seen::Property, &seen);
        OrqSubscription listChanged = OrqPropertyListChangedSubscribe(s, &Seen::List, &seen);
        EXPECT_FALSE(Lists(s, 8) || Lists(s, 9));
        sx170->SetModeWheel(32769);  // Manual
        EXPECT_TRUE(Eventually([&] { return seen.listChanges >= 1; }));
        EXPECT_EQ(seen.modeChanges, 1);
        int value = -1;
        EXPECT_EQ(OrqGetPropertyData(s, 0, &value), ORQ_OK);
        EXPECT_EQ(value, 2);
        EXPECT_TRUE(Lists(s, 8) && Lists(s, 9));

        // A set reports the list change on the caller's thread, not the main loop's.
        EXPECT_EQ(OrqSetPropertyData(s, 15, 11), ORQ_OK);
        EXPECT_EQ(seen.listChanges, 2);
        EXPECT_TRUE(Lists(s, 16));
        EXPECT_EQ(seen.modeChanges + seen.otherChanges, 1);  // the set property raises nothing
        OrqFree(changed);
        OrqFree(listChanged);
    }
    sx170->Unplug();
    a1400->Unplug();
}

}  // namespace
