#include "ServePool.h"

namespace orqcam {
namespace serve {

BoundedPool::BoundedPool(size_t workers) {
    for (size_t i = 0; i < workers; ++i) threads.emplace_back([this] { Work(); });
}

void BoundedPool::enqueue(std::function<void()> job) {
    std::unique_lock<std::mutex> guard(lock);
    room.wait(guard, [&] { return jobs.size() < kQueued; });
    jobs.push_back(std::move(job));
    ready.notify_one();
}

void BoundedPool::shutdown() {
    {
        std::lock_guard<std::mutex> guard(lock);
        done = true;
    }
    ready.notify_all();
    for (auto& thread : threads) thread.join();
}

void BoundedPool::Work() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> guard(lock);
            ready.wait(guard, [&] { return done || !jobs.empty(); });
            if (jobs.empty()) return;
            job = std::move(jobs.front());
            jobs.pop_front();
        }
        room.notify_one();
        job();
    }
}

}  // namespace serve
}  // namespace orqcam
