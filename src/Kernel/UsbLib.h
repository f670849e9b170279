// The transport between a camera link and the operating system's USB stack. A backend knows
// nothing of cameras: it finds still-image devices, opens them and moves bytes on two bulk pipes.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

namespace orq {

// Opaque record of one open device; defined and owned by the backend.
struct UsbDevice;

// A caller-owned byte buffer, valid for the length of the call.
struct UsbBuffer {
    uint8_t* data;
    uint64_t size;
};

class IUsbLib_Notify {
public:
    // Something in the system's USB device set may have changed. Never called with a backend
    // lock held: the receiver enumerates, opens and closes devices from here.
    virtual void OnDeviceChange() = 0;
    virtual ~IUsbLib_Notify() = default;
};

class UsbLib {
public:
    virtual std::set<std::u16string> GetAllConnectedDevicePaths() = 0;
    virtual UsbDevice* OpenDevice(std::u16string path) = 0;
    // Safe twice on one record; fails a transfer blocked on another thread.
    virtual void CloseDevice(UsbDevice* device) = 0;
    // Closes the device if it is still open and frees its record. Nothing may use the record
    // any more, nor be transferring on it.
    virtual void ReleaseDevice(UsbDevice* device) = 0;
    virtual std::u16string GetDeviceName(UsbDevice* device) = 0;
    // True when the last OpenDevice of path failed because this user may not open the device.
    virtual bool OpenDenied(const std::u16string& /*path*/) { return false; }
    // True only when exactly buffer.size bytes arrived on the bulk-in pipe.
    virtual bool UsbReadExactly(UsbBuffer buffer, UsbDevice* device) = 0;
    // True only when the whole buffer went out as one transfer on the bulk-out pipe.
    virtual bool UsbWrite(UsbBuffer buffer, UsbDevice* device) = 0;
    // Stops notification and waits until no OnDeviceChange can run any more.
    virtual ~UsbLib() = default;
};

// Pipe timeout of every backend.
constexpr unsigned kUsbPipeTimeoutMs = 5000;

// The bound of one UsbReadExactly, which may take many transfers: a device that keeps sending
// empty packets, or trickles its bytes so slowly that the read would outlast the pipe timeout
// plus the time for those bytes at the slowest rate a working link keeps up, fails it.
class ReadBudget {
public:
    static constexpr uint64_t kSlowestBytesPerSecond = 64 * 1024;
    static constexpr int kEmptyTransfers = 4;

    explicit ReadBudget(uint64_t size)
        : deadline(std::chrono::steady_clock::now() + std::chrono::milliseconds(kUsbPipeTimeoutMs) +
                   std::chrono::milliseconds(size * 1000 / kSlowestBytesPerSecond)) {}

    // Counts one transfer that moved count bytes; false when the read is to fail.
    bool Spend(uint64_t count) {
        empty = count == 0 ? empty + 1 : 0;
        return empty < kEmptyTransfers && std::chrono::steady_clock::now() < deadline;
    }

private:
    std::chrono::steady_clock::time_point deadline;
    int empty = 0;
};

// The transport this build of the library uses (USB backend, or the virtual camera bus).
// Returns only when the backend is ready to deliver notifications.
std::unique_ptr<UsbLib> CreateUsbLib(IUsbLib_Notify* notify);

}  // namespace orq
