// The open-device records of a USB backend. The handle a backend gives out is its record's
// address; a record stays until released, since callers may close a handle twice.
#pragma once

#include <algorithm>
#include <list>
#include <memory>
#include <mutex>

#include "Kernel/UsbLib.h"

namespace orq {

template <class Record>
class UsbRecords {
public:
    UsbDevice* Add(std::unique_ptr<Record> record) {
        std::lock_guard<std::mutex> guard(lock);
        records.push_back(std::move(record));
        return reinterpret_cast<UsbDevice*>(records.back().get());
    }

    // The handle's record, now the caller's to close; null for a handle not held.
    std::unique_ptr<Record> Take(UsbDevice* device) {
        std::lock_guard<std::mutex> guard(lock);
        auto found = std::find_if(records.begin(), records.end(), [&](const auto& record) {
            return reinterpret_cast<UsbDevice*>(record.get()) == device;
        });
        if (found == records.end()) return nullptr;
        std::unique_ptr<Record> taken = std::move(*found);
        records.erase(found);
        return taken;
    }

    // Every record, for a backend that is shutting down.
    std::list<std::unique_ptr<Record>> TakeAll() {
        std::list<std::unique_ptr<Record>> all;
        std::lock_guard<std::mutex> guard(lock);
        all.swap(records);
        return all;
    }

private:
    std::mutex lock;
    std::list<std::unique_ptr<Record>> records;
};

}  // namespace orq
