#include "Event.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/support.h"

using namespace orq;
using orqtest::CountContaining;
using orqtest::LogLinesSince;
using orqtest::LogSize;

namespace {

using IntEvent = Event<OrqPropertyChangedCallback>;

struct Calls {
    std::vector<int> seen;
    OrqSubscription unsubscribeOnCall = nullptr;
    int sleepMs = 0;
};

void Record(void* context, int value) {
    auto* calls = static_cast<Calls*>(context);
    calls->seen.push_back(value);
    if (calls->unsubscribeOnCall) {
        memmgr::Free(calls->unsubscribeOnCall);
        calls->unsubscribeOnCall = nullptr;
    }
    if (calls->sleepMs) std::this_thread::sleep_for(std::chrono::milliseconds(calls->sleepMs));
}

void Raise(IntEvent& event, int value) {
    event.Raise(
        [value](OrqPropertyChangedCallback callback, void* context) { callback(context, value); });
}

}  // namespace

TEST(Event, ASubscriberReleasedDuringARaiseIsSkipped) {
    IntEvent event;
    Calls a, b;
    OrqSubscription first = event.Subscribe(Record, &a);
    OrqSubscription second = event.Subscribe(Record, &b);
    // Whichever runs first releases the other; exactly one call happens.
    Calls& early = first < second ? a : b;
    early.unsubscribeOnCall = first < second ? second : first;
    Raise(event, 1);
    EXPECT_EQ(a.seen.size() + b.seen.size(), 1u);
    memmgr::Free(first < second ? first : second);
}

TEST(Event, SlowHandlersAreReportedOncePerRaiseWithTheSum) {
    IntEvent event;
    event.SetName("slow one");
    Calls a{{}, nullptr, 600}, b{{}, nullptr, 600};
    OrqSubscription first = event.Subscribe(Record, &a);
    OrqSubscription second = event.Subscribe(Record, &b);
    size_t start = LogSize();
    Raise(event, 1);
    auto lines = LogLinesSince(start);
    EXPECT_EQ(CountContaining(lines, "Application event handler processing time exceeded:"), 1);
    EXPECT_EQ(CountContaining(lines, "ms slow one"), 1);
    EXPECT_EQ(b.seen.size(), 1u);
    // The sum starts afresh with each raise.
    a.sleepMs = b.sleepMs = 0;
    size_t quiet = LogSize();
    Raise(event, 2);
    EXPECT_EQ(CountContaining(LogLinesSince(quiet), "exceeded"), 0);
    memmgr::Free(first);
    memmgr::Free(second);
}

TEST(Event, ReleaseAfterTheEventIsGoneIsHarmless) {
    OrqSubscription left;
    Calls calls;
    size_t start = LogSize();
    {
        IntEvent event;
        left = event.Subscribe(Record, &calls);
    }
    auto lines = LogLinesSince(start);
    EXPECT_EQ(CountContaining(lines, "Delete Event object with active subscribers!"), 1);
    EXPECT_EQ(CountContaining(lines, "delete Subscriber"), 1);
    memmgr::Free(left);  // must neither crash nor report the pointer as unknown
    EXPECT_EQ(CountContaining(LogLinesSince(start), "OrqFree: unknown pointer"), 0);
}

TEST(Event, ConcurrentRaisesAndReleasesAreSafe) {
    IntEvent event;
    std::atomic<int> total{0};
    auto count = [](void* context, int) { static_cast<std::atomic<int>*>(context)->fetch_add(1); };
    std::vector<OrqSubscription> subscriptions;
    for (int i = 0; i < 20; ++i) subscriptions.push_back(event.Subscribe(count, &total));
    std::thread raiser([&] {
        for (int i = 0; i < 200; ++i) Raise(event, i);
    });
    for (auto subscription : subscriptions) memmgr::Free(subscription);
    raiser.join();
    EXPECT_EQ(event.SubscriberCount(), 0u);
    EXPECT_LE(total.load(), 20 * 200);
}
