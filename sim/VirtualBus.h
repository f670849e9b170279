// The process-wide bus of virtual cameras, and the transport that reaches it. Tests and the
// OrqSim exports plug endpoints in and out; every transport created on the bus is told.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Kernel/UsbLib.h"
#include "sim/VirtualEndpoint.h"

namespace orqsim {

class VirtualBus {
public:
    static VirtualBus& Instance();

    // Attaches an endpoint under a path; returns false if the path is taken.
    // Notifies every live transport on its notification thread.
    bool Attach(const std::u16string& path, std::shared_ptr<VirtualEndpoint> endpoint);
    // Detaches the endpoint at path (transfers in flight fail as on a cable pull).
    bool Detach(const std::u16string& path);
    void DetachAll();
    // Notification without a change of the set (e.g. a hub plugged in).
    void NotifyChange();

    std::shared_ptr<VirtualEndpoint> Find(const std::u16string& path) const;
    std::set<std::u16string> Paths() const;

    // Transports register for notifications.
    using Listener = std::function<void()>;
    int AddListener(Listener listener);
    void RemoveListener(int id);

private:
    VirtualBus() = default;
    void NotifyListeners();

    mutable std::mutex lock;
    std::map<std::u16string, std::shared_ptr<VirtualEndpoint>> endpoints;
    std::map<int, Listener> listeners;
    int nextListener = 1;
};

// A UsbLib on the virtual bus. Notifications arrive on a thread of its own.
std::unique_ptr<orq::UsbLib> CreateVirtualUsbLib(orq::IUsbLib_Notify* notify);

}  // namespace orqsim
