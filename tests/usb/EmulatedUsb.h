// USB devices emulated in user space for libusb: umockdev presents them in a private sysfs and
// /dev, and their usbfs requests (claims, URBs, string descriptors) are answered here, the bulk
// pipes by a VirtualEndpoint. libusb, the backend and the SDK run unmodified on top.
//
// Test programs link umockdev's preload library (see CMakeLists.txt), so no wrapper is needed.
// The bus must exist before any libusb context and outlive all of them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "sim/VirtualEndpoint.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace orqtest {

struct EmulatedDeviceOptions {
    enum class Holder {
        None,
        KernelDriver,  // a kernel driver is bound: taken off by a detaching claim
        OtherProgram,  // another usbfs program (photo importer, gphoto2) holds the interface
    };
    uint8_t interfaceClass = 6;  // still image; 0xFF makes a vendor device with the same pipes
    bool bulkOut = true;
    bool interruptIn = true;  // the camera's event pipe, never used by the host
    bool hub = false;         // a hub: no bulk pipes at all
    Holder holder = Holder::None;
};

// What one emulated device has seen of the host.
struct EmulatedDeviceStats {
    int opens = 0;     // the device node opened (libusb_open)
    int claims = 0;    // successful claims of the interface
    int releases = 0;  // the interface given back
    int detaches = 0;  // kernel drivers taken off
    int bulkSubmits = 0;
};

class EmulatedUsbBus {
public:
    EmulatedUsbBus();
    ~EmulatedUsbBus();
    EmulatedUsbBus(const EmulatedUsbBus&) = delete;
    EmulatedUsbBus& operator=(const EmulatedUsbBus&) = delete;

    // Plugs a device in; returns the path the backend gives it ("usb:001:DDD"). endpoint may be
    // null for a device whose pipes are never used.
    std::u16string Plug(std::shared_ptr<orqsim::VirtualEndpoint> endpoint,
                        EmulatedDeviceOptions options = {});
    // Pulls the device out: transfers in flight fail as on a cable pull, libusb sees it leave.
    void Unplug(const std::u16string& path);
    // Changes who holds the device's interface (e.g. the other program lets go).
    void SetHolder(const std::u16string& path, EmulatedDeviceOptions::Holder holder);

    EmulatedDeviceStats Stats(const std::u16string& path) const;

    struct Device;

private:
    UMockdevTestbed* testbed = nullptr;
    unsigned nextAddress = 2;  // 1 is the root hub
    std::map<std::u16string, std::unique_ptr<Device>> devices;
};

}  // namespace orqtest
