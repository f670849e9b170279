// Shared pieces of the USB backend tests: the backend's test entry, a notification target that
// records its calls, and the SDK's main log as text.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Kernel/UsbLib.h"
#include "Logger.h"
#include "platform/Platform.h"

namespace orq {
// Defined by UsbLib_LibUsb.cpp: the backend with hot-plug events or with periodic enumeration.
std::unique_ptr<UsbLib> CreateUsbLib_LibUsb(IUsbLib_Notify* notify, bool useHotplug);
}  // namespace orq

namespace orqtest {

class ChangeRecorder : public orq::IUsbLib_Notify {
public:
    void OnDeviceChange() override {
        if (onChange) onChange();
        {
            std::lock_guard<std::mutex> guard(lock);
            ++calls;
            lastThread = std::this_thread::get_id();
        }
        changed.notify_all();
    }

    int Calls() const {
        std::lock_guard<std::mutex> guard(lock);
        return calls;
    }
    std::thread::id LastThread() const {
        std::lock_guard<std::mutex> guard(lock);
        return lastThread;
    }
    // Waits until `until` holds after a call, or the time is up.
    bool WaitFor(const std::function<bool()>& until,
                 std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, limit, [&] {
            guard.unlock();
            bool done = until();
            guard.lock();
            return done;
        });
    }
    bool WaitForCalls(int count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, limit, [&] { return calls >= count; });
    }

    // Runs inside OnDeviceChange, on the backend's thread; set before the backend exists.
    std::function<void()> onChange;

private:
    mutable std::mutex lock;
    std::condition_variable changed;
    int calls = 0;
    std::thread::id lastThread;
};

// The main log from a mark on: every line is on disk before the logging call returns.
class LogWatch {
public:
    LogWatch() {
        ORQ_LOG(orq::DEB, "---- test starts ----");
        std::string text;
        orq::platform::ReadFile(orq::MainLogPath(), text);
        start = text.size();
    }
    std::string Text() const {
        std::string text;
        orq::platform::ReadFile(orq::MainLogPath(), text);
        return text.size() > start ? text.substr(start) : std::string();
    }
    bool Has(const std::string& piece) const { return Text().find(piece) != std::string::npos; }

private:
    size_t start = 0;
};

}  // namespace orqtest
