// A device side for transport tests: bulk-in replies are queued by the test (whole packets or
// any pieces, empty ones included), or in loopback every bulk-out transfer comes back as a
// reply. Faults: stalls on either pipe and short writes.
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

    // A reply piece for bulk-in; a read takes at most one piece, or part of it.
    void QueueIn(Bytes piece) {
        std::lock_guard<std::mutex> guard(lock);
        in.push_back(Item{std::move(piece), orqsim::TransferResult::Ok});
        arrived.notify_all();
    }
    // A failure (Error: stall) that the next read meets once the pieces before it are taken.
    void QueueInFailure(Status status) {
        std::lock_guard<std::mutex> guard(lock);
        in.push_back(Item{{}, status});
        arrived.notify_all();
    }
    // Bulk-out: Ok takes at most outLimit bytes; Error stalls.
    void SetOut(Status status, size_t limit = SIZE_MAX) {
        std::lock_guard<std::mutex> guard(lock);
        outStatus = status;
        outLimit = limit;
    }

    // What bulk-out delivered (not kept in loopback).
    std::vector<Bytes> Written() const {
        std::lock_guard<std::mutex> guard(lock);
        return written;
    }

    std::u16string ProductString() const override { return product; }

    orqsim::TransferResult BulkOut(const uint8_t* data, size_t size, unsigned) override {
        std::lock_guard<std::mutex> guard(lock);
        if (aborted) return {orqsim::TransferResult::Disconnected, 0};
        if (outStatus != orqsim::TransferResult::Ok) return {outStatus, 0};
        size_t count = std::min(size, outLimit);
        if (loopback) {
            in.push_back(Item{Bytes(data, data + count), orqsim::TransferResult::Ok});
            arrived.notify_all();
        } else {
            written.emplace_back(data, data + count);
        }
        return {orqsim::TransferResult::Ok, count};
    }

    orqsim::TransferResult BulkIn(uint8_t* data, size_t size, unsigned timeoutMs) override {
        std::unique_lock<std::mutex> guard(lock);
        arrived.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                         [this] { return aborted || !in.empty(); });
        if (aborted) return {orqsim::TransferResult::Disconnected, 0};
        if (in.empty()) return {orqsim::TransferResult::Timeout, 0};
        Item& item = in.front();
        if (item.status != orqsim::TransferResult::Ok) {
            Status status = item.status;
            in.pop_front();
            return {status, 0};
        }
        size_t count = std::min(size, item.bytes.size() - item.taken);
        if (count) std::memcpy(data, item.bytes.data() + item.taken, count);
        item.taken += count;
        if (item.taken == item.bytes.size()) in.pop_front();
        return {orqsim::TransferResult::Ok, count};
    }

    void Abort() override {
        std::lock_guard<std::mutex> guard(lock);
        aborted = true;
        arrived.notify_all();
    }
    void Reset() override {
        std::lock_guard<std::mutex> guard(lock);
        aborted = false;
    }

private:
    struct Item {
        Bytes bytes;
        Status status;
        size_t taken = 0;
    };

    const std::u16string product;
    const bool loopback;
    mutable std::mutex lock;
    std::condition_variable arrived;
    std::deque<Item> in;
    std::vector<Bytes> written;
    Status outStatus = orqsim::TransferResult::Ok;
    size_t outLimit = SIZE_MAX;
    bool aborted = false;
};

}  // namespace orqtest
