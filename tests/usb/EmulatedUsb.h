// USB devices emulated in user space for libusb: umockdev presents them in a private sysfs and
// /dev, and their usbfs requests (claims, URBs, string descriptors) are answered here, the bulk
// pipes by a VirtualEndpoint that is only asked without waiting, so never aborted nor reset.
// libusb, the backend and the SDK run unmodified on top.
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
    uint8_t interfaceClass = 6;  // still image; 0xFF makes a vendor device with the same pipes
    bool bulkOut = true;
    bool held = false;          // another usbfs program (a photo importer, say) holds the interface
    bool noAccess = false;      // the node is closed to everyone, as it is without the udev rule
    uint16_t packetSize = 512;  // as the bulk pipes declare it; packets are 512 bytes regardless
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
    // Bulk transfers the host has handed the device.
    int BulkSubmits(const std::u16string& path) const;
    // Transfers submitted and not yet taken back when the host last released the interface.
    size_t UnreapedAtRelease(const std::u16string& path) const;

    struct Device;

private:
    UMockdevTestbed* testbed = nullptr;
    unsigned nextAddress = 2;  // 1 is the root hub
    std::map<std::u16string, std::unique_ptr<Device>> devices;
};

}  // namespace orqtest
