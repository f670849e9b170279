// Shared pieces of the USB backend tests: the backend's test entry, a notification target that
// records its calls and a fixture base with whole-buffer transfers.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
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

// Counts the backend's notifications and remembers the thread of the last.
struct ChangeRecorder : orq::IUsbLib_Notify {
    void OnDeviceChange() override {
        if (onChange) onChange();
        lastThread = std::this_thread::get_id();
        ++calls;
    }

    // Runs inside OnDeviceChange, on the backend's thread; set before the backend exists.
    std::function<void()> onChange;
    std::atomic<int> calls{0};
    std::atomic<std::thread::id> lastThread;
};

class UsbLibTest : public ::testing::Test {
protected:
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
