// A named notification with its set of application callbacks, raised synchronously on the
// raising thread. Subscriptions are handed out as OrqSubscription and released through OrqFree.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Logger.h"
#include "memmgr.h"
#include "orqsdk.h"

// The opaque record behind OrqSubscription.
struct OrqSubscriber {
    OrqSubscriber() = default;
    OrqSubscriber(const OrqSubscriber&) = delete;
    OrqSubscriber& operator=(const OrqSubscriber&) = delete;
    virtual ~OrqSubscriber() { ORQ_LOG(orq::DEB, "delete Subscriber"); }
};

namespace orq {

template <class Callback>
class Event {
public:
    struct Subscriber : OrqSubscriber {
        Subscriber(Callback callback, void* context) : callback(callback), context(context) {}
        Callback callback;
        void* context;
    };

    Event() : core(std::make_shared<Core>()) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    ~Event() {
        std::lock_guard<std::recursive_mutex> guard(core->lock);
        if (!core->subscribers.empty()) {
            ORQ_LOG(ERR, "Delete Event object with active subscribers!");
            core->subscribers.clear();
        }
    }

    void SetName(const std::string& name) {
        std::lock_guard<std::recursive_mutex> guard(core->lock);
        core->name = name;
        ORQ_LOG(DEB, "Event.setName: %s", name.c_str());
    }

    std::string Name() const {
        std::lock_guard<std::recursive_mutex> guard(core->lock);
        return core->name;
    }

    OrqSubscription Subscribe(Callback callback, void* context) {
        auto subscriber = std::make_shared<Subscriber>(callback, context);
        Subscriber* key = subscriber.get();
        {
            std::lock_guard<std::recursive_mutex> guard(core->lock);
            core->subscribers.emplace(key, std::move(subscriber));
        }
        // The release outlives neither the subscriber nor, safely, the event: once the event is
        // gone its subscribers are too, and a late OrqFree finds nothing to do.
        std::weak_ptr<Core> weakCore = core;
        ORQ_REGISTER_POINTER(key, [weakCore](void* pointer) {
            if (auto alive = weakCore.lock()) {
                std::shared_ptr<Subscriber> released;
                std::lock_guard<std::recursive_mutex> guard(alive->lock);
                auto found = alive->subscribers.find(static_cast<Subscriber*>(pointer));
                if (found == alive->subscribers.end()) return;
                released = std::move(found->second);
                alive->subscribers.erase(found);
            }
        });
        return key;
    }

    // deliver(callback, context) is called for each subscriber present at its turn, with no
    // lock held, so that a callback may subscribe, unsubscribe or call into the SDK.
    template <class Deliver>
    void Raise(const Deliver& deliver) {
        auto start = std::chrono::steady_clock::now();
        std::vector<std::shared_ptr<Subscriber>> list;
        std::string name;
        {
            std::lock_guard<std::recursive_mutex> guard(core->lock);
            list.reserve(core->subscribers.size());
            for (auto& entry : core->subscribers) list.push_back(entry.second);
            name = core->name;
        }
        for (auto& subscriber : list) {
            {
                std::lock_guard<std::recursive_mutex> guard(core->lock);
                if (core->stopped) break;
                if (!core->subscribers.count(subscriber.get())) continue;
                core->delivering.insert(std::this_thread::get_id());
            }
            Delivering mark{core.get()};
            Deliver copy = deliver;
            copy(subscriber->callback, subscriber->context);
        }
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - start)
                           .count();
        if (elapsed > 1000) {
            ORQ_LOG(ERR, "Application event handler processing time exceeded: %dms %s",
                    static_cast<int>(elapsed), name.c_str());
        }
    }

    // No delivery starts from now on. The result waits for the deliveries already running on
    // other threads; it may be called after the event is gone.
    std::function<void()> Stop() {
        {
            std::lock_guard<std::recursive_mutex> guard(core->lock);
            core->stopped = true;
        }
        std::shared_ptr<Core> held = core;
        return [held] {
            std::unique_lock<std::recursive_mutex> guard(held->lock);
            auto self = std::this_thread::get_id();
            held->idle.wait(
                guard, [&] { return held->delivering.size() == held->delivering.count(self); });
        };
    }

    size_t SubscriberCount() const {
        std::lock_guard<std::recursive_mutex> guard(core->lock);
        return core->subscribers.size();
    }

private:
    struct Core {
        mutable std::recursive_mutex lock;
        std::map<Subscriber*, std::shared_ptr<Subscriber>> subscribers;
        std::string name = "<unknown>";
        bool stopped = false;
        // Threads inside a callback of this event, once per delivery.
        std::multiset<std::thread::id> delivering;
        std::condition_variable_any idle;
    };
    // Ends one delivery's entry, also when the callback throws.
    struct Delivering {
        Core* core;
        ~Delivering() {
            std::lock_guard<std::recursive_mutex> guard(core->lock);
            core->delivering.erase(core->delivering.find(std::this_thread::get_id()));
            core->idle.notify_all();
        }
    };
    std::shared_ptr<Core> core;
};

}  // namespace orq
