// Synchronised shots: every camera prepares its shot on its own main loop, then waits at the gate
// until each of the others is ready or has dropped out, so that the Shoot commands leave at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <vector>

#include "orqsdk.h"

namespace orq {

class ShotGate {
public:
    using Clock = std::chrono::steady_clock;

    // A camera that is not ready within `patience` no longer holds the others.
    ShotGate(size_t cameras, std::chrono::milliseconds patience)
        : slots_(cameras),
          waiting_(cameras),
          deadline_(Clock::now() + patience),
          released_(release_.get_future().share()) {
        if (cameras == 0) release_.set_value();
    }

    // On the camera's main loop, its preparation done: returns when every camera has arrived or
    // dropped out, or at the deadline.
    void Arrive(size_t slot) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            Leave(slot);
        }
        // A future, not the condition: the cameras wake together instead of taking the mutex
        // one after another.
        released_.wait_until(deadline_);
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
    };

    // Under the lock.
    void Leave(size_t slot) {
        if (slots_[slot].arrived || slots_[slot].reported) return;
        slots_[slot].arrived = true;
        if (--waiting_ == 0) release_.set_value();
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Slot> slots_;
    size_t waiting_;
    size_t reports_ = 0;
    const Clock::time_point deadline_;
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

    void Arrive() { gate_->Arrive(slot_); }
    void Report(OrqResult result) { gate_->Report(slot_, result); }

private:
    std::shared_ptr<ShotGate> gate_;
    size_t slot_;
};

}  // namespace orq
