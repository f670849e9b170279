#include "memmgr.h"

#include <map>
#include <mutex>
#include <string>

#include "Logger.h"

namespace orq::memmgr {

namespace {

struct PointerRecord {
    FreeFunction free;
    std::string sourceFile;
    int sourceLine = 0;
    Kind kind = Kind::Other;
    bool swept = false;
};

struct MemoryManager {
    // Recursive: a free function may itself register or free.
    std::recursive_mutex lock;
    std::map<void*, PointerRecord> table;
};

MemoryManager& Manager() {
    // Never destroyed: pointers may still be released while the process unloads.
    static MemoryManager* manager = new MemoryManager;
    return *manager;
}

}  // namespace

void Register(void* pointer, FreeFunction free, const char* sourceFile, int sourceLine, Kind kind) {
    MemoryManager& manager = Manager();
    std::lock_guard<std::recursive_mutex> guard(manager.lock);
    manager.table[pointer] =
        PointerRecord{std::move(free), SourceName(sourceFile), sourceLine, kind, false};
}

bool ReadLive(const void* pointer, Kind kind, const std::function<void()>& read) {
    MemoryManager& manager = Manager();
    std::lock_guard<std::recursive_mutex> guard(manager.lock);
    auto found = manager.table.find(const_cast<void*>(pointer));
    if (found == manager.table.end() || found->second.kind != kind || found->second.swept)
        return false;
    read();
    return true;
}

void Free(void* pointer) {
    MemoryManager& manager = Manager();
    std::lock_guard<std::recursive_mutex> guard(manager.lock);
    auto found = manager.table.find(pointer);
    if (found == manager.table.end()) {
        ORQ_LOG(ERR, "OrqFree: unknown pointer");
        return;
    }
    // Moved out first: the free function may register new pointers and rebalance the map.
    FreeFunction free = std::move(found->second.free);
    manager.table.erase(found);
    if (free) free(pointer);
}

void Sweep() {
    MemoryManager& manager = Manager();
    std::lock_guard<std::recursive_mutex> guard(manager.lock);
    for (auto& [pointer, record] : manager.table) {
        ORQ_LOG(INF, "active free func: %s %d", record.sourceFile.c_str(), record.sourceLine);
        // A swept entry stays listed (a second termination reports it again, a late OrqFree
        // forgets it quietly), but its function runs only once: running it again would release
        // memory that is already gone.
        FreeFunction free = std::move(record.free);
        record.free = nullptr;
        record.swept = true;
        if (free) free(pointer);
    }
}

}  // namespace orq::memmgr
