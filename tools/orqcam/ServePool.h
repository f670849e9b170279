// The worker threads of orqcam serve.
#pragma once

#include <httplib.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace orqcam {
namespace serve {

// Connections beyond the workers wait in the kernel's backlog, not in an unbounded queue.
class BoundedPool : public httplib::TaskQueue {
public:
    explicit BoundedPool(size_t workers);
    void enqueue(std::function<void()> job) override;
    void shutdown() override;

private:
    static constexpr size_t kQueued = 16;
    void Work();

    std::mutex lock;
    std::condition_variable ready, room;
    std::deque<std::function<void()>> jobs;
    std::vector<std::thread> threads;
    bool done = false;
};

}  // namespace serve
}  // namespace orqcam
