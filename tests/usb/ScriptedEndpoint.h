// A device side for transport tests: bulk-in replies are queued by the test (whole packets or
// any pieces, empty ones included), and in loopback every bulk-out transfer comes back as a
// reply (otherwise what goes out is dropped). Faults: stalls on either pipe and short writes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "sim/VirtualEndpoint.h"

namespace orqtest {

class ScriptedEndpoint : public orqsim::VirtualEndpoint {
public:
    using Bytes = std::vector<uint8_t>;
    using Status = orqsim::TransferResult::Status;

    explicit ScriptedEndpoint(std::u16string product = u"Orq Scripted Camera",
                              bool loopback = false)
        : product(std::move(product)), loopback(loopback) {}

    // A reply piece for bulk-in (a read takes at most one piece, or part of it), or a failure
    // (Error: stall) that the next read meets once the pieces before it are taken.
    void QueueIn(Bytes piece, Status status = orqsim::TransferResult::Ok) {
        std::lock_guard<std::mutex> guard(lock);
        in.push_back(Item{std::move(piece), status});
        arrived.notify_all();
    }
    // Bulk-out: Ok takes at most outLimit bytes; Error stalls.
    void SetOut(Status status, size_t limit = SIZE_MAX) {
        std::lock_guard<std::mutex> guard(lock);
        outStatus = status;
        outLimit = limit;
    }

    std::u16string ProductString() const override { return product; }

    orqsim::TransferResult BulkOut(const uint8_t* data, size_t size, unsigned) override {
        std::lock_guard<std::mutex> guard(lock);
        if (outStatus != orqsim::TransferResult::Ok) return {outStatus, 0};
        size_t count = std::min(size, outLimit);
        if (loopback) {
            in.push_back(Item{Bytes(data, data + count), orqsim::TransferResult::Ok});
            arrived.notify_all();
        }
        return {orqsim::TransferResult::Ok, count};
    }

    orqsim::TransferResult BulkIn(uint8_t* data, size_t size, unsigned timeoutMs) override {
        std::unique_lock<std::mutex> guard(lock);
        arrived.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                         [this] { return !in.empty(); });
        if (in.empty()) return {orqsim::TransferResult::Timeout, 0};
        Item& item = in.front();
        if (const Status status = item.status; status != orqsim::TransferResult::Ok) {
            in.pop_front();
            return {status, 0};
        }
        size_t count = std::min(size, item.bytes.size() - item.taken);
        if (count) std::memcpy(data, item.bytes.data() + item.taken, count);
        item.taken += count;
        if (item.taken == item.bytes.size()) in.pop_front();
        return {orqsim::TransferResult::Ok, count};
    }

    // A read waits at most its timeout, and the queue may outlive a close: nothing to cut short.
    void Abort() override {}
    void Reset() override {}

private:
    struct Item {
        Bytes bytes;
        Status status;
        size_t taken = 0;
    };

    const std::u16string product;
    const bool loopback;
    std::mutex lock;
    std::condition_variable arrived;
    std::deque<Item> in;
    Status outStatus = orqsim::TransferResult::Ok;
    size_t outLimit = SIZE_MAX;
};

}  // namespace orqtest
