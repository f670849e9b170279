#include "sim/VirtualBus.h"

namespace orqsim {

VirtualBus& VirtualBus::Instance() {
    // Never destroyed: transports and endpoints may outlive static destruction order.
    static VirtualBus* bus = new VirtualBus;
    return *bus;
}

bool VirtualBus::Attach(const std::u16string& path, std::shared_ptr<VirtualEndpoint> endpoint) {
    {
        std::lock_guard<std::mutex> guard(lock);
        if (!endpoint || !endpoints.emplace(path, std::move(endpoint)).second) return false;
    }
    NotifyListeners();
    return true;
}

bool VirtualBus::Detach(const std::u16string& path) {
    std::shared_ptr<VirtualEndpoint> gone;
    {
        std::lock_guard<std::mutex> guard(lock);
        auto found = endpoints.find(path);
        if (found == endpoints.end()) return false;
        gone = std::move(found->second);
        endpoints.erase(found);
    }
    // A pulled cable fails whatever is in flight.
    gone->Abort();
    NotifyListeners();
    return true;
}

void VirtualBus::DetachAll() {
    std::map<std::u16string, std::shared_ptr<VirtualEndpoint>> gone;
    {
        std::lock_guard<std::mutex> guard(lock);
        gone.swap(endpoints);
    }
    for (auto& entry : gone) entry.second->Abort();
    if (!gone.empty()) NotifyListeners();
}

void VirtualBus::NotifyChange() {
    NotifyListeners();
}

std::shared_ptr<VirtualEndpoint> VirtualBus::Find(const std::u16string& path) const {
    std::lock_guard<std::mutex> guard(lock);
    auto found = endpoints.find(path);
    return found == endpoints.end() ? nullptr : found->second;
}

std::set<std::u16string> VirtualBus::Paths() const {
    std::lock_guard<std::mutex> guard(lock);
    std::set<std::u16string> paths;
    for (auto& entry : endpoints) paths.insert(entry.first);
    return paths;
}

int VirtualBus::AddListener(Listener listener) {
    std::lock_guard<std::mutex> guard(lock);
    int id = nextListener++;
    listeners.emplace(id, std::move(listener));
    return id;
}

void VirtualBus::RemoveListener(int id) {
    std::lock_guard<std::mutex> guard(lock);
    listeners.erase(id);
}

void VirtualBus::NotifyListeners() {
    // Listeners only wake their transport's own notification thread; they never block.
    std::lock_guard<std::mutex> guard(lock);
    for (auto& entry : listeners) entry.second();
}

}  // namespace orqsim
