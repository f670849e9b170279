// Shared pieces of the USB backend tests: the backend's test entry, a notification target that
// records its calls and a fixture base with whole-buffer transfers.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Kernel/UsbLib.h"
#include "tests/support/support.h"

namespace orq {
// Defined by UsbLib_LibUsb.cpp: the backend with hot-plug events or with periodic enumeration.
std::unique_ptr<UsbLib> CreateUsbLib_LibUsb(IUsbLib_Notify* notify, bool useHotplug);
}  // namespace orq

namespace orqtest {

class ChangeRecorder : public orq::IUsbLib_Notify {
public:
    void OnDeviceChange() override {
        if (onChange) onChange();
        std::lock_guard<std::mutex> guard(lock);
        lastThread = std::this_thread::get_id();
        ++calls;
        changed.notify_all();
    }

    int Calls() const { return calls; }
    std::thread::id LastThread() const { return lastThread; }
    // Waits up to ten seconds until `until` holds after a call.
    bool WaitFor(const std::function<bool()>& until) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(10), [&] {
            guard.unlock();
            bool done = until();
            guard.lock();
            return done;
        });
    }

    // Runs inside OnDeviceChange, on the backend's thread; set before the backend exists.
    std::function<void()> onChange;

private:
    std::mutex lock;
    std::condition_variable changed;
    std::atomic<int> calls{0};
    std::atomic<std::thread::id> lastThread;
};

class UsbLibTest : public ::testing::Test {
protected:
    using Bytes = std::vector<uint8_t>;

    void TearDown() override { usb.reset(); }
    bool Read(orq::UsbDevice* device, Bytes& into) {
        return usb->UsbReadExactly(orq::UsbBuffer{into.data(), into.size()}, device);
    }
    bool Write(orq::UsbDevice* device, Bytes bytes) {
        return usb->UsbWrite(orq::UsbBuffer{bytes.data(), bytes.size()}, device);
    }

    ChangeRecorder notify;
    std::unique_ptr<orq::UsbLib> usb;
};

}  // namespace orqtest
