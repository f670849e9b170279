#include "tests/usb/EmulatedUsb.h"

// clang-format off
#include <linux/ioctl.h>  // before usbdevice_fs.h, which does not include it
#include <linux/usbdevice_fs.h>
// clang-format on
#include <sys/prctl.h>
#include <sys/stat.h>
#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace orqtest {

namespace {

using orqsim::TransferResult;

constexpr uint16_t kPacketSize = 512;  // high speed bulk

// Guards every emulated device. One lock for all, as a static, so that ThreadSanitizer sees it
// order what the test thread sets up before umockdev's worker thread first looks: the hand-over
// itself goes through GLib's own locks, which it cannot see.
std::mutex& EmulationLock() {
    static std::mutex lock;
    return lock;
}

// Device and configuration descriptors of a camera as sysfs holds them, in hex: the open test
// vendor id (the host looks at none), a product string only, bulk pipes and the event pipe the
// host never uses.
std::string CameraDescriptors(const EmulatedDeviceOptions& options) {
    const uint8_t stillImage = options.interfaceClass == 6, pipes = options.bulkOut ? 3 : 2;
    const uint8_t size[] = {uint8_t(options.packetSize), uint8_t(options.packetSize >> 8)};
    std::vector<uint8_t> bytes;
    const auto add = [&bytes](std::initializer_list<uint8_t> part) {
        bytes.insert(bytes.end(), part);
    };
    add({18, 1, 0, 2, 0, 0, 0, 64, 0x09, 0x12, 1, 0, 0, 1, 0, 2, 0, 1});          // device
    add({9, 2, uint8_t(18 + 7 * pipes), 0, 1, 1, 0, 0xC0, 50});                   // configuration
    add({9, 4, 0, 0, pipes, options.interfaceClass, stillImage, stillImage, 0});  // interface
    add({7, 5, 0x81, 2, size[0], size[1], 0});                                    // bulk-in
    if (options.bulkOut) add({7, 5, 0x02, 2, size[0], size[1], 0});
    add({7, 5, 0x83, 3, 8, 0, 9});  // interrupt-in
    std::string hex;
    char digits[3];
    for (uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", byte);
        hex += digits;
    }
    return hex;
}

// Puts a high-speed device of bus 1 into umockdev's sysfs and /dev.
void AddDevice(UMockdevTestbed* testbed, const std::string& sysPath, unsigned address,
               const std::string& descriptors) {
    char text[1024];
    std::snprintf(
        text, sizeof text,
        "P: %s\nN: bus/usb/001/%03u\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n"
        "E: BUSNUM=001\nE: DEVNUM=%03u\nE: DEVNAME=/dev/bus/usb/001/%03u\nA: busnum=1\\n\n"
        "A: devnum=%u\\n\nA: bConfigurationValue=1\\n\nA: speed=480\\n\nH: descriptors=%s\n",
        sysPath.c_str(), address, address, address, address, descriptors.c_str());
    if (!umockdev_testbed_add_from_string(testbed, text, nullptr)) {
        throw std::runtime_error("umockdev could not add " + sysPath);
    }
}

}  // namespace

// One emulated device: the usbfs side of its /dev node. Everything but construction runs on
// umockdev's worker thread, except Unplug from the test; EmulationLock guards it.
struct EmulatedUsbBus::Device {
    struct Urb {
        UMockdevIoctlData* data;  // the submitted urb, its buffer resolved to a local copy
        int moved = 0;
        int status = 0;
        // A discarded urb comes back a little later, as from real hardware.
        std::chrono::steady_clock::time_point due{};
    };

    std::string sysPath;
    std::string devNode;
    std::shared_ptr<orqsim::VirtualEndpoint> endpoint;
    UMockdevIoctlBase* handler = nullptr;

    bool held = false;
    bool removed = false;
    int bulkSubmits = 0;
    size_t unreapedAtRelease = 0;
    std::deque<Urb> pending;   // submitted, not finished
    std::deque<Urb> finished;  // to be reaped, in this order
    std::vector<uint8_t> scratch;

    ~Device() {
        for (auto* list : {&pending, &finished}) {
            for (Urb& urb : *list) g_object_unref(urb.data);
        }
        if (handler) g_object_unref(handler);
    }

    static usbdevfs_urb* Raw(const Urb& urb) {
        return reinterpret_cast<usbdevfs_urb*>(urb.data->data);
    }

    static gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
        std::lock_guard<std::mutex> guard(EmulationLock());
        static_cast<Device*>(self)->Ioctl(client);
        return TRUE;
    }

    void Ioctl(UMockdevIoctlClient* client) {
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        switch (umockdev_ioctl_client_get_request(client)) {
            case USBDEVFS_GET_CAPABILITIES: {
                UMockdevIoctlData* caps =
                    umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr);
                *reinterpret_cast<uint32_t*>(caps->data) =
                    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                    USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_BULK_SCATTER_GATHER |
                    USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
                g_object_unref(caps);
                return Complete(client, 0);
            }
            case USBDEVFS_DISCONNECT_CLAIM:
                // libusb asks to spare other usbfs programs' claims: theirs keeps the interface
                // busy, a kernel driver would be taken off.
                if (removed) return Complete(client, ENODEV);
                return Complete(client, held ? EBUSY : 0);
            case USBDEVFS_RELEASEINTERFACE:
                // The host closes the device (umockdev does not tell when the node is closed).
                unreapedAtRelease = pending.size() + finished.size();
                return Complete(client, removed ? ENODEV : 0);
            case USBDEVFS_SUBMITURB:
                return Submit(client, arg);
            case USBDEVFS_DISCARDURB:
                return Discard(client, arg);
            case USBDEVFS_REAPURB:
            case USBDEVFS_REAPURBNDELAY:
                return Reap(client, arg);
            default:
                // Plain claims (libusb claims by detaching), reattaching a kernel driver and
                // the like: not supported by this device.
                return Complete(client, ENOTTY);
        }
    }

    static void Complete(UMockdevIoctlClient* client, int error) {
        umockdev_ioctl_client_complete(client, error ? -1 : 0, error);
    }

    void Submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        if (removed) return Complete(client, ENODEV);
        UMockdevIoctlData* data =
            umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
        auto* urb = reinterpret_cast<usbdevfs_urb*>(data->data);
        if (urb->buffer_length > 0) {
            UMockdevIoctlData* buffer =
                umockdev_ioctl_data_resolve(data, offsetof(usbdevfs_urb, buffer),
                                            static_cast<gsize>(urb->buffer_length), nullptr);
            g_object_unref(buffer);  // the urb keeps it
        }
        if (urb->type == USBDEVFS_URB_TYPE_BULK) ++bulkSubmits;
        pending.push_back(Urb{data, 0, 0});
        Complete(client, 0);
    }

    void Discard(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        auto address = reinterpret_cast<gulong>(*reinterpret_cast<void**>(arg->data));
        for (auto it = pending.begin(); it != pending.end(); ++it) {
            if (it->data->client_addr != address) continue;
            it->status = -ENOENT;
            it->due = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
            finished.push_back(*it);
            pending.erase(it);
            return Complete(client, 0);
        }
        Complete(client, EINVAL);
    }

    void Reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
        if (finished.empty()) {
            for (auto it = pending.begin(); it != pending.end(); ++it) {
                if (!Progress(*it)) continue;
                finished.push_back(*it);
                pending.erase(it);
                break;
            }
        }
        if (!finished.empty() && finished.front().due > std::chrono::steady_clock::now())
            return Complete(client, EAGAIN);
        if (finished.empty()) return Complete(client, removed ? ENODEV : EAGAIN);
        Urb urb = finished.front();
        finished.pop_front();
        usbdevfs_urb* raw = Raw(urb);
        raw->status = urb.status;
        raw->actual_length = urb.moved;
        UMockdevIoctlData* slot = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
        umockdev_ioctl_data_set_ptr(slot, 0, urb.data);
        g_object_unref(slot);
        Complete(client, 0);
        g_object_unref(urb.data);
    }

    // Moves data for one urb as far as the device allows now; true once the urb is done. The
    // worker thread must not block, so the endpoint is asked with no wait and asked again at
    // the next reap.
    bool Progress(Urb& urb) {
        usbdevfs_urb* raw = Raw(urb);
        auto* buffer = static_cast<uint8_t*>(raw->buffer);
        if (raw->type == USBDEVFS_URB_TYPE_CONTROL) return Control(urb, buffer);
        if (raw->type != USBDEVFS_URB_TYPE_BULK || !endpoint) return false;
        if (raw->endpoint & 0x80) {
            while (true) {
                // The device sends whole packets: one that does not fit the room left is
                // babble, which fails the urb with the bytes that fitted.
                size_t room = static_cast<size_t>(raw->buffer_length - urb.moved);
                size_t ask = (room + kPacketSize - 1) / kPacketSize * kPacketSize;
                scratch.resize(ask);
                TransferResult result = endpoint->BulkIn(scratch.data(), ask, 0);
                if (result.status == TransferResult::Timeout) return false;
                if (result.status != TransferResult::Ok) return Fail(urb, result.status);
                size_t fits = std::min(result.count, room);
                std::memcpy(buffer + urb.moved, scratch.data(), fits);
                urb.moved += static_cast<int>(fits);
                if (result.count > room) {
                    urb.status = -EOVERFLOW;
                    return true;
                }
                // A short (or empty) packet or a full buffer ends a bulk-in urb.
                if (result.count == 0 || result.count % kPacketSize != 0 ||
                    urb.moved == raw->buffer_length) {
                    return true;
                }
            }
        }
        TransferResult result =
            endpoint->BulkOut(buffer, static_cast<size_t>(raw->buffer_length), 0);
        if (result.status == TransferResult::Timeout) return false;
        if (result.status != TransferResult::Ok) return Fail(urb, result.status);
        urb.moved = static_cast<int>(result.count);
        return true;
    }

    static bool Fail(Urb& urb, TransferResult::Status status) {
        urb.status = status == TransferResult::Error ? -EPIPE : -ESHUTDOWN;
        return true;
    }

    // Standard requests on endpoint 0: only the product string is asked for (the rest comes
    // from sysfs), anything else stalls. The buffer starts with the 8-byte setup packet, which
    // actual_length omits.
    bool Control(Urb& urb, uint8_t* buffer) {
        usbdevfs_urb* raw = Raw(urb);
        urb.status = -EPIPE;
        if (raw->buffer_length < 8) return true;
        uint16_t value = static_cast<uint16_t>(buffer[2] | (buffer[3] << 8));
        uint16_t length = static_cast<uint16_t>(buffer[6] | (buffer[7] << 8));
        if (buffer[0] != 0x80 || buffer[1] != 6 || value != 0x0302) return true;
        const std::u16string text = endpoint ? endpoint->ProductString() : u"";
        const size_t units = std::min<size_t>(text.size(), 126);  // bLength is one byte
        std::vector<uint8_t> reply = {static_cast<uint8_t>(2 + 2 * units), 3};
        for (size_t i = 0; i < units; ++i) {
            reply.insert(reply.end(), {uint8_t(text[i] & 0xFF), uint8_t(text[i] >> 8)});
        }
        size_t count =
            std::min<size_t>({reply.size(), length, static_cast<size_t>(raw->buffer_length - 8)});
        std::memcpy(buffer + 8, reply.data(), count);
        urb.moved = static_cast<int>(count);
        urb.status = 0;
        return true;
    }
};

EmulatedUsbBus::EmulatedUsbBus() {
    // Timer slack of the default 50 us on every poll the emulation makes halves its speed;
    // threads made from here on (umockdev's worker, libusb's) inherit this.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    testbed = umockdev_testbed_new();
    if (!testbed) throw std::runtime_error("umockdev_testbed_new failed");
    // The root hub: a hub with its interrupt pipe.
    AddDevice(testbed, "/devices/usb1", 1,
              "12010002090001400912020000010002000109021900010100c0320904000001090000000705810304"
              "000c");
}

EmulatedUsbBus::~EmulatedUsbBus() {
    for (auto& entry : devices) {
        umockdev_testbed_detach_ioctl(testbed, entry.second->devNode.c_str(), nullptr);
    }
    g_object_unref(testbed);
    // Under the lock only so that ThreadSanitizer sees the worker's last touch come before.
    std::lock_guard<std::mutex> guard(EmulationLock());
    devices.clear();
}

std::u16string EmulatedUsbBus::Plug(std::shared_ptr<orqsim::VirtualEndpoint> endpoint,
                                    EmulatedDeviceOptions options) {
    unsigned address = nextAddress++;
    char text[64];
    std::unique_lock<std::mutex> guard(EmulationLock());
    auto made = std::make_unique<Device>();
    Device* device = made.get();
    std::snprintf(text, sizeof text, "usb:001:%03u", address);
    const std::u16string path(text, text + std::strlen(text));
    std::snprintf(text, sizeof text, "/devices/usb1/1-%u", address - 1);
    device->sysPath = std::string("/sys") + text;
    std::snprintf(text, sizeof text, "/dev/bus/usb/001/%03u", address);
    device->devNode = text;
    device->endpoint = std::move(endpoint);
    device->held = options.held;
    devices.emplace(path, std::move(made));
    guard.unlock();

    // The handler goes on before the device appears, so that no open can miss it.
    device->handler = umockdev_ioctl_base_new();
    g_signal_connect_after(device->handler, "handle-ioctl", G_CALLBACK(Device::OnIoctl), device);
    if (!umockdev_testbed_attach_ioctl(testbed, device->devNode.c_str(), device->handler,
                                       nullptr)) {
        throw std::runtime_error("umockdev could not attach to " + device->devNode);
    }
    AddDevice(testbed, device->sysPath.substr(4), address, CameraDescriptors(options));
    if (options.noAccess) {
        gchar* root = umockdev_testbed_get_root_dir(testbed);
        std::string node = root + device->devNode;
        g_free(root);
        if (chmod(node.c_str(), 0) != 0) throw std::runtime_error("cannot close " + node);
    }
    return path;
}

void EmulatedUsbBus::Unplug(const std::u16string& path) {
    auto it = devices.find(path);
    if (it == devices.end()) throw std::runtime_error("unplugging a device never plugged");
    Device& device = *it->second;
    {
        std::lock_guard<std::mutex> guard(EmulationLock());
        if (device.removed) return;
        device.removed = true;
        // What the kernel does to urbs in flight when the device goes.
        for (auto& urb : device.pending) {
            urb.status = -ESHUTDOWN;
            device.finished.push_back(urb);
        }
        device.pending.clear();
    }
    umockdev_testbed_uevent(testbed, device.sysPath.c_str(), "remove");
    umockdev_testbed_remove_device(testbed, device.sysPath.c_str());
}

int EmulatedUsbBus::BulkSubmits(const std::u16string& path) const {
    std::lock_guard<std::mutex> guard(EmulationLock());
    return devices.at(path)->bulkSubmits;
}

size_t EmulatedUsbBus::UnreapedAtRelease(const std::u16string& path) const {
    std::lock_guard<std::mutex> guard(EmulationLock());
    return devices.at(path)->unreapedAtRelease;
}

}  // namespace orqtest
