// Synchronised shots: every camera prepares its shot on its own main loop, then waits at the gate
// until each of the others is ready or has dropped out, so that the Shoot commands leave at once.
// A timed gate instead opens at a given moment, for cameras on several machines whose clocks
// agree: whoever is ready by then goes, whoever is not stays out rather than shoot late.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "orqsdk.h"

namespace orq {

class ShotGate {
public:
    using Clock = std::chrono::steady_clock;
    using Wall = std::chrono::system_clock;

    // A camera that is not ready within `patience` no longer holds the others.
    ShotGate(size_t cameras, std::chrono::milliseconds patience)
        : slots_(cameras),
          waiting_(cameras),
          deadline_(Clock::now() + patience),
          released_(release_.get_future().share()) {
        if (cameras == 0) release_.set_value();
    }

    // Timed: opens at `releaseAt` whoever has arrived; later arrivals do not shoot.
    ShotGate(size_t cameras, Clock::time_point releaseAt)
        : slots_(cameras),
          waiting_(cameras),
          deadline_(releaseAt),
          timed_(true),
          released_(release_.get_future().share()) {}

    // On the camera's main loop, its preparation done: returns when every camera has arrived or
    // dropped out, or at the deadline; for a timed gate at its moment. False: too late to shoot.
    bool Arrive(size_t slot) {
        const Clock::time_point arrived = Clock::now();
        {
            std::lock_guard<std::mutex> guard(lock_);
            Leave(slot);
            slots_[slot].ready = arrived;
        }
        if (timed_) {
            if (arrived > deadline_) return false;
            // The caller's thread opens the gate at the moment: one timer, not one per camera. A
            // gate never opened lets nobody through late.
            if (released_.wait_until(deadline_ + kOpenGrace) != std::future_status::ready)
                return false;
        } else {
            // A future, not the condition: the cameras wake together instead of taking the
            // mutex one after another.
            released_.wait_until(deadline_);
        }
        // Without the lock: the cameras leave together. The caller reads it after the camera's
        // report, or as an atomic while it is late.
        slots_[slot].sentUs =
            std::chrono::duration_cast<std::chrono::microseconds>(Wall::now().time_since_epoch())
                .count();
        return true;
    }

    // The caller of a timed gate: sleeps to just short of the moment, yields until it (a sleeper
    // may wake a timer tick late, on some systems 15 ms), and opens the gate.
    void OpenAtMoment() {
        std::this_thread::sleep_until(deadline_ - kSpin);
        while (Clock::now() < deadline_) std::this_thread::yield();
        std::lock_guard<std::mutex> guard(lock_);
        if (opened_) return;
        opened_ = true;
        release_.set_value();
    }

    // When each camera was ready (steady clock) and when its Shoot left (wall clock), for the
    // cameras that got that far; read after AwaitReports.
    struct Times {
        bool arrived = false;
        Clock::time_point ready;
        int64_t sentUs = 0;  // 0: not sent
    };
    std::vector<Times> SlotTimes() {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<Times> times;
        for (const Slot& slot : slots_) {
            times.push_back({slot.ready != Clock::time_point{}, slot.ready, slot.sentUs.load()});
        }
        return times;
    }

    // The camera's Shoot went out (ORQ_OK), failed, or its preparation failed: the first report
    // of a slot counts, and a camera that reports without arriving no longer holds the others.
    void Report(size_t slot, OrqResult result) {
        std::lock_guard<std::mutex> guard(lock_);
        if (slots_[slot].reported) return;
        Leave(slot);
        slots_[slot].reported = true;
        slots_[slot].result = result;
        ++reports_;
        changed_.notify_all();
    }

    // The caller: waits until every camera has reported or `bound` has passed; a camera that has
    // not reported by then stands as ORQ_DEVICE_NOT_READY.
    std::vector<OrqResult> AwaitReports(std::chrono::milliseconds bound) {
        std::unique_lock<std::mutex> guard(lock_);
        changed_.wait_for(guard, bound, [this] { return reports_ == slots_.size(); });
        std::vector<OrqResult> results;
        for (const Slot& slot : slots_) {
            results.push_back(slot.reported ? slot.result : ORQ_DEVICE_NOT_READY);
        }
        return results;
    }

private:
    struct Slot {
        bool arrived = false;
        bool reported = false;
        OrqResult result = ORQ_DEVICE_NOT_READY;
        Clock::time_point ready{};
        std::atomic<int64_t> sentUs{0};  // microseconds since 1970 UTC
    };
    static constexpr std::chrono::milliseconds kSpin{2};
    static constexpr std::chrono::milliseconds kOpenGrace{1000};

    // Under the lock.
    void Leave(size_t slot) {
        if (slots_[slot].arrived || slots_[slot].reported) return;
        slots_[slot].arrived = true;
        if (--waiting_ == 0 && !timed_) release_.set_value();
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Slot> slots_;
    size_t waiting_;
    size_t reports_ = 0;
    const Clock::time_point deadline_;
    const bool timed_ = false;
    bool opened_ = false;
    std::promise<void> release_;
    std::shared_future<void> released_;
};

// One camera's place at a gate. A shot that ends without reporting (its message dropped with the
// session, its chain destroyed) reports ORQ_DEVICE_NOT_READY, so that nobody waits for it.
class ShotTicket {
public:
    ShotTicket(std::shared_ptr<ShotGate> gate, size_t slot) : gate_(std::move(gate)), slot_(slot) {}
    ~ShotTicket() { gate_->Report(slot_, ORQ_DEVICE_NOT_READY); }
    ShotTicket(const ShotTicket&) = delete;
    ShotTicket& operator=(const ShotTicket&) = delete;

    bool Arrive() { return gate_->Arrive(slot_); }
    void Report(OrqResult result) { gate_->Report(slot_, result); }

private:
    std::shared_ptr<ShotGate> gate_;
    size_t slot_;
};

}  // namespace orq
