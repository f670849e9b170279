// Properties through the C API: what start-up, the poll and the caller's thread add to the engine.
#include "tests/support/support.h"

namespace {

using namespace orqtest;

// What the callbacks saw, counted for the test's thread.
struct Seen {
    std::atomic<int> modeChanges{0}, listChanges{0};

    static void Property(void* self, int id) { static_cast<Seen*>(self)->modeChanges += id == 0; }
    static void List(void* self) { ++static_cast<Seen*>(self)->listChanges; }
};

using PropsSession = SdkTest;

TEST_F(PropsSession, StartUpThenTheWheelAndSetsReportChanges) {
    const auto program = [](orqsim::VirtualCamera& c) { c.SetModeWheel(32772); };
    auto sx170 = Plug("SX170", program);
    auto a1400 = Plug("A1400", program);
    Start();
    EXPECT_EQ(Cameras().size(), 2u);
    OrqSessionHandle s = Open(sx170);
    // Manual focus is switched off at start where the model has the property.
    EXPECT_EQ(sx170->CountOperations(0x9999, 155), 1u);
    EXPECT_EQ(a1400->CountOperations(0x9999, 155) + a1400->CountOperations(0x9999, 154), 0u);

    // The poll follows the wheel turned at the camera.
    static Seen seen;  // outlives the SDK, which frees the subscriptions
    OrqPropertyChangedSubscribe(s, &Seen::Property, &seen);
    OrqPropertyListChangedSubscribe(s, &Seen::List, &seen);
    sx170->SetModeWheel(32769);  // Manual
    EXPECT_TRUE(WaitFor([] { return seen.listChanges > 0; }));
    EXPECT_EQ(seen.listChanges, 1);
    EXPECT_EQ(seen.modeChanges, 1);
    // A set reports the list change on the caller's thread, not the main loop's.
    EXPECT_EQ(OrqSetPropertyData(s, 15, 11), ORQ_OK);
    EXPECT_EQ(seen.listChanges, 2);
}

}  // namespace
